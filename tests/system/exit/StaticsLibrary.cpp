// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A second shared library that uses ours, with static objects of its own.
#include "Statics.h"

namespace {

// Destroyed last: no hook of this library may be left in place when its code is unloaded.
struct TakesItsHookBack {
  ~TakesItsHookBack() { Varnix::SetLoggingFunction({}); }
} takes_its_hook_back;

Statics empty_at_first("library, empty at first", Statics::Start::kEmpty);
Statics filled_at_once("library, filled at once", Statics::Start::kFilled);

}  // namespace

void FillStaticsOfTheLibrary() {
  static Statics late("library, late", Statics::Start::kFilled);
  empty_at_first.Fill();
}

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Leaves tables, watchers, sets and shared databases to the destructors of static objects: made before the first call
// of the library, with it and after it, in the program and in a second shared library.
#include "Statics.h"

#include "Leave.h"

namespace {

Statics empty_at_first("program, empty at first", Statics::Start::kEmpty);
Statics filled_at_once("program, filled at once", Statics::Start::kFilled);

}  // namespace

int main(int, char** argv) {
  FillStaticsOfTheLibrary();
  empty_at_first.Fill();
  static Statics late("program, late", Statics::Start::kFilled);
  return Leave(argv[1]);
}

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <map>

#include "commands/ObserverCommand.h"
#include "commands/RowPrinter.h"

// `varnix members`: each member, when it has said who it is.
class MembersCommand : public ObserverCommand {
 public:
  explicit MembersCommand(const Options& options);

 private:
  void OnMet(const Member& member) override;
  bool Finish() override;

  RowPrinter printer_;
  std::map<std::uint32_t, int> met_;  // How many at each address.
};

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "commands/ObserverCommand.h"
#include "commands/RowPrinter.h"

// `varnix dump`: every row that each member has set.
class DumpCommand : public ObserverCommand {
 public:
  explicit DumpCommand(const Options& options);

 private:
  std::size_t OnRow(const Member& member, const Row& row) override;
  std::string ProgressText() const override;
  bool Finish() override;

  RowPrinter printer_;
  std::size_t rows_ = 0;
};

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "commands/ObserverCommand.h"
#include "commands/RowPrinter.h"

// `varnix watch`: rows as they come.
class WatchCommand : public ObserverCommand {
 public:
  explicit WatchCommand(const Options& options);

 protected:
  // For what writes them elsewhere.
  WatchCommand(const Options& options, bool json, int descriptor);

  std::string ProgressText() const override;
  bool Finish() override;

  std::uint64_t rows_ = 0;

 private:
  std::size_t OnRow(const Member& member, const Row& row) override;
  bool IsDone() override;
  bool IsAskedFor(const Row& row) const;

  RowPrinter printer_;
};

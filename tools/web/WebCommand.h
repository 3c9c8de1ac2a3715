// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "commands/ObserverCommand.h"
#include "web/HttpServer.h"
#include "web/WebModel.h"

// `varnix web`: a page that lives.
class WebCommand : public ObserverCommand {
 public:
  explicit WebCommand(const Options& options);

 private:
  void OnMet(const Member& member) override;
  std::size_t OnRow(const Member& member, const Row& row) override;
  void OnEnd(const Member& member, const End& end) override;
  bool Finish() override { return true; }

  WebModel model_;
  HttpServer server_;
};

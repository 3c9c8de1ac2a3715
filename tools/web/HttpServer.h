// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "net/Acceptor.h"
#include "net/Loop.h"
#include "net/Place.h"
#include "web/HttpConnection.h"
#include "web/Site.h"
#include "web/WebModel.h"

// Serves a model to browsers and scripts, which can only look. It runs on the loop, with everything else.
class HttpServer : public Waiter, private Acceptor::Owner, private Site::Content {
 public:
  static constexpr std::size_t kMostBrowsers = 32;

  // Throws std::system_error if nobody can be accepted at that place. `hello` is the first event for each browser.
  HttpServer(Loop& loop, const Place& place, const WebModel& model, std::string hello, std::string own_name);

  std::uint16_t Port() const { return acceptor_.Port(); }

  pollfd Awaited() const override { return {-1, 0, 0}; }
  void OnReady(short) override {}
  TimePoint Deadline() const override;
  void OnDeadline() override;

 private:
  void OnAccepted(FileDescriptor socket, std::uint32_t address) override;
  void MakeRoom();
  std::unique_ptr<Feed> Members() const override;
  std::unique_ptr<Feed> Metrics() const override;
  std::unique_ptr<Feed> Rows(const std::optional<std::string>& table) const override;
  std::unique_ptr<Feed> Events() override;
  std::size_t Browsers() const;

  Loop& loop_;
  const WebModel& model_;
  const std::string hello_;
  const std::int64_t started_us_;
  Site site_;
  std::vector<std::unique_ptr<HttpConnection>> connections_;  // The oldest first.
  Acceptor acceptor_;
};

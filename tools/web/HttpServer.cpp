// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/HttpServer.h"

#include <algorithm>
#include <utility>

#include "text/Time.h"
#include "web/EventFeed.h"
#include "web/MembersFeed.h"
#include "web/MetricsFeed.h"
#include "web/RowsFeed.h"

namespace {

// Beside the browsers: those that ask for something, and those that are being turned away.
constexpr std::size_t kMostOthers = 32;

}  // namespace

HttpServer::HttpServer(Loop& loop, const Place& place, const WebModel& model, std::string hello, std::string own_name)
    : Waiter(loop),
      loop_(loop),
      model_(model),
      hello_(std::move(hello)),
      started_us_(TimeNow()),
      site_(*this, std::move(own_name)),
      acceptor_(loop, *this, place) {}

// At once, when a connection has ended.
TimePoint HttpServer::Deadline() const {
  const bool any_ended = std::any_of(connections_.begin(), connections_.end(),
                                     [](const auto& connection) { return connection->IsEnded(); });
  return any_ended ? TimePoint() : TimePoint::max();
}

void HttpServer::OnDeadline() {
  connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                    [](const auto& connection) { return connection->IsEnded(); }),
                     connections_.end());
}

void HttpServer::OnAccepted(FileDescriptor socket, std::uint32_t) {
  if (connections_.size() >= kMostBrowsers + kMostOthers) MakeRoom();
  connections_.push_back(std::make_unique<HttpConnection>(loop_, std::move(socket), site_));
}

// Ends the one that has had its answer for longest, or else has been silent for longest, or else has been reading for
// longest: whoever holds connections keeps nobody else out. There is one, because browsers are fewer.
void HttpServer::MakeRoom() {
  const auto oldest = [this](auto is_such) {
    return std::find_if(connections_.begin(), connections_.end(),
                        [is_such](const auto& connection) { return is_such(*connection); });
  };
  auto found = oldest([](const HttpConnection& one) { return one.IsAnswered(); });
  if (found == connections_.end()) found = oldest([](const HttpConnection& one) { return one.IsAsking(); });
  if (found == connections_.end()) found = oldest([](const HttpConnection& one) { return !one.IsBrowser(); });
  connections_.erase(found);
}

std::unique_ptr<Feed> HttpServer::Members() const { return std::make_unique<MembersFeed>(model_); }

std::unique_ptr<Feed> HttpServer::Metrics() const {
  return std::make_unique<MetricsFeed>(model_, Browsers(), started_us_);
}

std::unique_ptr<Feed> HttpServer::Rows(const std::optional<std::string>& table) const {
  return std::make_unique<RowsFeed>(model_, table);
}

std::unique_ptr<Feed> HttpServer::Events() {
  if (Browsers() >= kMostBrowsers) return nullptr;
  return std::make_unique<EventFeed>(model_, hello_);
}

std::size_t HttpServer::Browsers() const {
  return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                [](const auto& connection) { return connection->IsBrowser(); }));
}

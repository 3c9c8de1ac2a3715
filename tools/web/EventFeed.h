// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "web/Feed.h"
#include "web/RowCursor.h"
#include "web/WebModel.h"

// The changes of a model as server-sent events, from the beginning on: first everything that there is, then what
// changes. Each line of data is one JSON object.
//
//   hello    the group and the database. What was told before counts no more.
//   member   a member has come, `since` when. What was told of its address and port counts no more.
//   left     it has left, with its rows, and why.
//   rows     one or more rows, one a line, as the command prints them, each with its member's port.
//   ready    everything that there was has been told.
//   time     the server's clock, at the beginning and, once everything has been told, every few seconds.
//
// Nothing is kept for a reader but how far it has been told. It is told the changes in their order, the oldest first.
// But a row that changes moves behind all others, and a slow reader would never come to the fastest rows. So when it
// has been told all that there was when a round began, and there is still more than it takes, a pass by name follows.
// There each row has its place, however often it changes. Who has left is told before all else: few of these are kept.
class EventFeed : public Feed {
 public:
  // `hello` is the JSON object of that event, and a newline.
  EventFeed(const WebModel& model, std::string hello);

  bool HasMore() const override;
  void Fill(std::string& out) override;
  bool IsLiving() const override { return true; }
  std::string SignOfLife() const override;

 private:
  // By name: the members, then the rows; of these, what was not told when it began.
  struct Pass {
    std::uint64_t told, until;  // Numbers of changes: it is about those between them.
    std::optional<Place> member;
    RowCursor rows;
  };

  void Begin(std::string& out);
  bool TellDepartures(std::string& out, std::size_t enough);
  void FillByNumber(std::string& out, std::size_t enough);
  void FillByName(std::string& out, std::size_t enough);
  std::optional<WebModel::Change> NextByName();
  bool IsNews(const WebModel::Change& change) const;
  bool HasMissedADeparture() const;
  bool IsAtReady(WebModel::Changes::const_iterator change) const;

  const WebModel& model_;
  const std::string hello_;
  bool begun_ = false, ready_ = false;
  std::uint64_t told_ = 0;        // The number of the last change that was told,
  std::uint64_t first_part_ = 0;  // of the last one that there was at the beginning,
  std::uint64_t round_ = 0;       // and of the last one that there was when this round began.
  std::uint64_t departed_ = 0;    // The number of the last departure that was told.
  std::optional<Pass> pass_;
};

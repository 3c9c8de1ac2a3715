// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The limit of what sockets and tables allow: the sockets and system calls of bare.cpp, and the tables that the library
// keeps by its design. The writer has each row twice, under its combined key for the senders and under its own key as
// the local copy; a sender takes rows in the order of their last changes, so that one which changes again before it is
// sent goes once. At the other end one thread receives rows into a table, and another takes them from it.

#include <condition_variable>
#include <iterator>
#include <list>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "SocketPeer.h"

namespace {

using Row = std::pair<std::string, std::string>;

class Table {
  using Rows = std::list<Row>;
  using Position = Rows::iterator;

 public:
  // Takes each row that is there and each change that follows, in order.
  class Reader;

  void Set(const std::string& key, const std::string& value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto [entry, inserted] = index_.try_emplace(key, rows_.end());
    Position& position = entry->second;
    if (inserted) {
      position = rows_.emplace(rows_.end(), key, value);
    } else {
      if (position->second == value) return;
      position->second = value;
      MoveToEnd(position);
    }
    // A reader that had taken all goes on with this row.
    for (Position& next : readers_) {
      if (next == rows_.end()) next = position;
    }
    changed_.notify_all();
  }

 private:
  void MoveToEnd(Position position) {
    for (Position& next : readers_) {
      if (next == position) ++next;
    }
    rows_.splice(rows_.end(), rows_, position);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Rows rows_;  // Oldest change first.
  std::unordered_map<std::string, Position> index_;
  std::list<Position> readers_;  // The row that each takes next; the end if it has taken all.
};

class Table::Reader {
 public:
  explicit Reader(Table& table) : table_(table) {
    const std::lock_guard<std::mutex> lock(table_.mutex_);
    next_ = table_.readers_.insert(table_.readers_.end(), table_.rows_.begin());
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() {
    const std::lock_guard<std::mutex> lock(table_.mutex_);
    table_.readers_.erase(next_);
  }

  // Waits for a row and copies it. Returns whether the next one is there already.
  bool Take(Row& row) {
    std::unique_lock<std::mutex> lock(table_.mutex_);
    table_.changed_.wait(lock, [&] { return *next_ != table_.rows_.end(); });
    row = **next_;
    return ++*next_ != table_.rows_.end();
  }

 private:
  Table& table_;
  std::list<Position>::iterator next_;
};

class TablesPeer final : public SocketPeer {
 public:
  explicit TablesPeer(const PeerSettings& settings) : SocketPeer(settings) { StartServing(); }

  void Set(const std::string& key, const std::string& value) override {
    combined_.Set(CombinedKey(key), value);
    local_.Set(key, value);
  }

  [[noreturn]] void Watch(const Seen& seen) override {
    std::thread(&TablesPeer::ReceiveRows, this).detach();
    Table::Reader reader(received_);
    Row row;
    for (;;) {
      reader.Take(row);
      seen(row.first, row.second);
    }
  }

 private:
  void SendRows(Stream& stream) override {
    Table::Reader reader(combined_);
    Row row;
    bool more;
    do {
      more = reader.Take(row);
    } while (stream.Send(Record(row.first, row.second), more));
  }

  [[noreturn]] void ReceiveRows() {
    Row row;
    Receive([&](std::string_view key, std::string_view value) {
      row.first = key;
      row.second = value;
      received_.Set(row.first, row.second);
    });
  }

  Table combined_;
  Table local_;
  Table received_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<TablesPeer>(settings); }

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Fixed amounts of work, whose instructions are counted: instructions SCENARIO
// Only what Measured() does counts. One thread does it all, so that the count is the same each time.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "databases/TableDecombiner.h"
#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/Record.h"
#include "network/SocketStream.h"

namespace {

constexpr int kRows = 10'000;
constexpr int kPortion = 50;  // A connection takes so many before anybody reads.

std::function<void()> measured;

std::vector<Varnix::Row> Rows(int count, char value) {
  std::vector<Varnix::Row> rows;
  for (int i = 0; i < count; ++i) {
    std::string key = std::to_string(i);
    key.resize(16, '.');
    rows.emplace_back(key, std::string(32, value));
  }
  return rows;
}

void SetAll(Varnix::Table& table, const std::vector<Varnix::Row>& rows) {
  for (const Varnix::Row& row : rows) table.Set(row);
}

// Both ends of a connection, and the stream of the one that is measured.
struct Connection {
  Connection() {
    int ends[2];
    int done[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || pipe(done) != 0) std::abort();
    peer = ends[1];
    FileDescriptor socket = [&] {
      const NoFork no_fork;
      return FileDescriptor(no_fork, ends[0]);
    }();
    stream = std::make_unique<SocketStream>(std::move(socket), done[0]);
    if (!stream->Open()) std::abort();
  }

  int peer;
  std::unique_ptr<SocketStream> stream;
};

void SetNewRows() {
  const auto table = Varnix::MakeTable("t");
  measured = [table, rows = Rows(kRows, 'a')] { SetAll(*table, rows); };
}

void SetKnownRowsAmongWatchersOfOthers() {
  const auto table = Varnix::MakeTable("t");
  SetAll(*table, Rows(kRows, 'a'));
  std::vector<std::shared_ptr<Varnix::Watcher>> watchers{table->WatchAll()};
  for (int i = 0; i < 1'000; ++i) watchers.push_back(table->Watch("other " + std::to_string(i)));
  measured = [table, watchers, rows = Rows(kRows, 'b')] { SetAll(*table, rows); };
}

// No set has a descriptor. What the sets take again is a part of it, so that each row finds them empty.
void SetKnownRowsAmongSetsWithoutADescriptor() {
  const auto table = Varnix::MakeTable("t");
  SetAll(*table, Rows(kRows, 'a'));
  const auto all = table->WatchAll();
  const std::vector<std::shared_ptr<Varnix::WatcherSet>> sets{
      Varnix::MakeWatcherSet({all}), Varnix::MakeWatcherSet({all, table->Watch(Rows(1, 'a')[0].first)})};
  while (sets[1]->WaitUntil({}).second != nullptr) continue;
  measured = [table, sets, all, rows = Rows(kRows, 'b')] {
    for (const Varnix::Row& row : rows) {
      table->Set(row);
      all->GetChanges();
    }
  };
}

void SetKnownRowsWithTheFirstLogger() {
  SetLogHook(DefaultLogger);
  const auto table = Varnix::MakeTable("t");
  SetAll(*table, Rows(kRows, 'a'));
  measured = [table, rows = Rows(kRows, 'b')] { SetAll(*table, rows); };
}

void TakeRowsFromASet() {
  const auto table = Varnix::MakeTable("t");
  const auto set = Varnix::MakeWatcherSet({table->WatchAll()});
  SetAll(*table, Rows(kRows, 'a'));
  measured = [set] {
    for (int i = 0; i < kRows; ++i) set->Wait();
  };
}

// In portions, each of which the peer takes whole.
template <class WritePortion>
void WriteRecordsBy(WritePortion write) {
  measured = [connection = std::make_shared<Connection>(), rows = Rows(kPortion, 'a'), write] {
    std::vector<char> taken(kPortion * 52);
    for (int portion = 0; portion < kRows / kPortion; ++portion) {
      write(rows, *connection->stream);
      if (recv(connection->peer, taken.data(), taken.size(), MSG_WAITALL) < 0) std::abort();
    }
  };
}

void WriteRecords() {
  WriteRecordsBy([](const std::vector<Varnix::Row>& rows, SocketStream& stream) {
    for (const Varnix::Row& row : rows) WriteRecord(row, stream);
  });
}

void WriteABurstOfRecords() {
  WriteRecordsBy([](const std::vector<Varnix::Row>& rows, SocketStream& stream) {
    for (const Varnix::Row& row : rows) BufferRecord(row, stream);
    FlushRecords(stream);
  });
}

void ReadRecordsIntoTables() {
  std::string bytes;
  for (const auto& [key, value] : Rows(kPortion, 'a')) {
    const std::string combined = CombinedKey("a table", key);
    const unsigned lengths = static_cast<unsigned>(combined.size() << 20 | value.size());
    for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(lengths >> shift & 0xFF);
    bytes += combined + value;
  }
  const auto tables = std::make_shared<TableDecombiner>("db");
  measured = [connection = std::make_shared<Connection>(), tables, bytes] {
    RecordReader reader(*connection->stream);
    Varnix::Row row;
    for (int portion = 0; portion < kRows / kPortion; ++portion) {
      if (send(connection->peer, bytes.data(), bytes.size(), 0) < 0) std::abort();
      for (int i = 0; i < kPortion && reader.Read(row); ++i) tables->Set(row);
    }
  };
}

}  // namespace

// Named to valgrind: counting begins and ends with it.
extern "C" __attribute__((noinline)) void Measured() { measured(); }

int main(int argc, char** argv) {
  const std::map<std::string, void (*)()> scenarios{
      {"set new rows", SetNewRows},
      {"set known rows among watchers of others", SetKnownRowsAmongWatchersOfOthers},
      {"set known rows among sets without a descriptor", SetKnownRowsAmongSetsWithoutADescriptor},
      {"set known rows with the first logger", SetKnownRowsWithTheFirstLogger},
      {"take rows from a set", TakeRowsFromASet},
      {"write records", WriteRecords},
      {"write a burst of records", WriteABurstOfRecords},
      {"read records into tables", ReadRecordsIntoTables},
  };
  const auto scenario = scenarios.find(argc == 2 ? argv[1] : "");
  if (scenario == scenarios.end()) return std::fputs("usage: instructions SCENARIO\n", stderr), 2;
  SetLogHook({});
  scenario->second();
  Measured();
}

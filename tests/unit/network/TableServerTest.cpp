// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "CallRecorder.h"
#include "Client.h"
#include "Records.h"
#include "StartedServer.h"
#include "network/ActiveESNs.h"
#include "network/PeerTable.h"
#include "network/PeerThreads.h"
#include "network/TableServer.h"
#include "support/DescriptorLimit.h"
#include "support/Descriptors.h"
#include "support/Entries.h"
#include "support/FailWith.h"
#include "support/FailingAllocations.h"
#include "support/IsKept.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Lt;
using testing::Not;
using testing::SizeIs;
using Varnix::LogLevel;

constexpr std::chrono::seconds kDeadline(10);  // Bounds failing runs only.

// The numbers that CallRecorder gives to the descriptors of a server.
enum Number : std::size_t { kListener = 1, kDiscoverer, kDoneRead, kDoneWrite, kWakeRead, kWakeWrite };

constexpr std::size_t kSmallStack = std::size_t{256} * 1024;  // The thread sanitizer adds some of its own.
constexpr std::size_t kLargeStack = std::size_t{8} * 1024 * 1024;

// What the threads of senders have for their stacks, while this object lives.
class StackSizesOfSenders {
 public:
  StackSizesOfSenders() {
    SetLogHook([this](LogLevel, const char* tag, const char*, va_list) {
      if (std::strcmp(tag, "tblsndr.ctor") != 0) return;
      pthread_attr_t attributes;
      std::size_t size = 0;
      EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
      EXPECT_EQ(pthread_attr_getstacksize(&attributes, &size), 0);
      pthread_attr_destroy(&attributes);
      const std::lock_guard<std::mutex> lock(mutex_);
      sizes_.push_back(size);
    });
  }
  ~StackSizesOfSenders() { SetLogHook(DefaultLogger); }
  StackSizesOfSenders(const StackSizesOfSenders&) = delete;
  StackSizesOfSenders& operator=(const StackSizesOfSenders&) = delete;

  std::vector<std::size_t> Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sizes_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::size_t> sizes_;
};

// A server that neither announces nor hears anything. Hooks of poll for its own threads come before Start().
class TableServerTest : public testing::Test {
 protected:
  TableServerTest() { PeerThreads::ForgetAllInChild(); }  // When an earlier test has logged a shortage.

  void Start(unsigned broadcast_address = inet_addr("127.255.255.255")) {
    server_ = std::make_unique<TableServer>("\3devproc", "db", receive_table_, send_table_, "group", broadcast_address,
                                            peer_table_);
  }

  // The wait of a receiver for the stop alone.
  bool IsPause(const pollfd* entries, nfds_t count) const {
    return count == 1 && entries[0].fd == calls_.Descriptor(kDoneRead);
  }
  // On which it listens.
  unsigned short Port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(Hooks().getsockname.Real(calls_.Descriptor(kListener), Generic(address), &size), 0);
    return ToPeerPlace(address).port;
  }
  static std::shared_ptr<Varnix::Table> DoneTable() {
    for (const auto& [name, table] : Varnix::GetLocalTables()) {
      if (name == "_vrx_.ts_done.db") return table;
    }
    return nullptr;
  }
  std::string Address() const { return AddressOf(server_.get()); }

  LogRecorder log_;
  CallRecorder calls_;
  const std::shared_ptr<Varnix::Table> receive_table_ = Varnix::MakeTable("received");
  const std::shared_ptr<Varnix::Table> send_table_ = Varnix::MakeTable("sent");
  Hooked<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)> sendto_{
      Hooks().sendto,
      [](int, const void*, std::size_t size, int, const sockaddr*, socklen_t) { return static_cast<ssize_t>(size); }};
  Hooked<int(int, const sockaddr*, socklen_t)> connect_{Hooks().connect, FailWith{ECONNREFUSED}};
  PeerTable peer_table_{"db"};
  std::unique_ptr<TableServer> server_;
};

void ThrowNoMemory() { throw std::bad_alloc(); }

std::vector<std::string> NamesOfLocalTables() {
  std::vector<std::string> names;
  for (const auto& [name, table] : Varnix::GetLocalTables()) names.push_back(name);
  return names;
}

// A thread that waits in the kernel, or is gone.
bool IsAsleep(pid_t thread) {
  const char state = StateOfThread(thread);
  return state == 'S' || state == 'X';
}

// The list of /proc/self/task may be cut short while a thread ends.
std::ptrdiff_t NumberOfThreads() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0) return std::stol(line.substr(8));
  }
  ADD_FAILURE() << "no number of threads";
  return 0;
}

std::vector<std::string> NamesOfThreads() {
  std::vector<std::string> names;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(thread.path() / "comm");
    std::getline(comm, names.emplace_back());
  }
  return names;
}

// What the thread of the one peer does at its end: it stays until the server's own threads have gone and the stop is
// either asleep or past it.
class EndOfThePeerThread {
 public:
  // To be made by the thread that stops the server, beside which there are `others`.
  EndOfThePeerThread(CallRecorder& calls, std::ptrdiff_t others)
      : calls_(calls), others_(others), stopping_(gettid()) {}

  void Delay() const {
    const auto deadline = std::chrono::system_clock::now() + kDeadline;
    while (!StopWaits() && !StopWentOn() && std::chrono::system_clock::now() < deadline) std::this_thread::yield();
    calls_.Add("last peer thread ends");
  }

 private:
  bool StopWaits() const { return NumberOfThreads() <= others_ + 1 && IsAsleep(stopping_); }
  bool StopWentOn() const {
    const std::vector<std::string> calls = calls_.Calls();
    return std::find(calls.begin(), calls.end(), "close(#1)") != calls.end();
  }

  CallRecorder& calls_;
  const std::ptrdiff_t others_;
  const pid_t stopping_;
};

}  // namespace

// Construction.

TEST_F(TableServerTest, SaysAtConstructionForWhomItIs) {
  Start();

  EXPECT_THAT(log_.Lines("tblsvr.ctor"),
              ElementsAre(LogLine{LogLevel::Debug, "tblsvr.ctor",
                                  "TableServer for dev::proc::db(" + Address() + ") ctor", ""}));
  EXPECT_EQ(log_.Lines("tblsvr.ctor")[0].format, "TableServer for %.*s::%s::%s(%p) ctor");
}

TEST_F(TableServerTest, SaysForWhomItIsBeforeTheFirstSystemCall) {
  SetLogHook([this](LogLevel, const char* tag, const char*, va_list) { calls_.Add(tag); });

  Start();

  ASSERT_GE(calls_.Calls().size(), 2U);
  EXPECT_EQ(calls_.Calls()[0], "tblsvr.ctor");
  EXPECT_EQ(calls_.Calls()[1], "socket(AF_INET, SOCK_STREAM, 0) = #1");
}

TEST_F(TableServerTest, UidThatClaimsALongerNameThanItHoldsIsPrintedToItsEnd) {
  server_ = std::make_unique<TableServer>("\xFFxy", "db", receive_table_, send_table_, "group", 0, peer_table_);

  ASSERT_THAT(log_.Lines("tblsvr.ctor"), SizeIs(1));
  EXPECT_EQ(log_.Lines("tblsvr.ctor")[0].text, "TableServer for xy::::db(" + Address() + ") ctor");
}

TEST_F(TableServerTest, MakesItsDescriptorsByTheseCallsInThisOrder) {
  Start();

  EXPECT_THAT(calls_.Calls(),
              ElementsAre("socket(AF_INET, SOCK_STREAM, 0) = #1", "bind(#1, 0.0.0.0:0, 16)", "getsockname(#1, 16)",
                          "listen(#1, 10)", "socket(AF_INET, SOCK_DGRAM, 0) = #2",
                          "setsockopt(#2, SOL_SOCKET, SO_BROADCAST, 1)", "setsockopt(#2, SOL_SOCKET, SO_REUSEADDR, 1)",
                          "bind(#2, 0.0.0.0:1975, 16)", "pipe2(O_CLOEXEC) = #3, #4", "pipe2(O_CLOEXEC) = #5, #6"));
}

TEST_F(TableServerTest, StartsItsTwoThreadsWhenAllDescriptorsAreMade) {
  Hooked start_thread(Hooks().start_thread, [this] { calls_.Add("thread"); });

  Start();

  const std::vector<std::string> calls = calls_.Calls();
  ASSERT_THAT(calls, SizeIs(12));
  EXPECT_THAT(std::vector<std::string>(calls.begin() + 9, calls.end()),
              ElementsAre("pipe2(O_CLOEXEC) = #5, #6", "thread", "thread"));
}

TEST_F(TableServerTest, NamesItsThreadsAfterTheirWorkAndItsDatabase) {
  const auto both = IsSupersetOf({"vrx-acpt:db", "vrx-find:db"});
  Start();

  std::vector<std::string> names = NamesOfThreads();
  const auto deadline = std::chrono::system_clock::now() + kDeadline;
  while (!testing::Value(names, both) && std::chrono::system_clock::now() < deadline) {
    std::this_thread::yield();
    names = NamesOfThreads();
  }

  EXPECT_THAT(names, both);
}

TEST_F(TableServerTest, HasADoneTableNamedAfterItsDatabase) {
  Start();

  EXPECT_THAT(NamesOfLocalTables(), Contains("_vrx_.ts_done.db"));
}

TEST_F(TableServerTest, DoneTableIsEmptyWhileTheServerRuns) {
  Start();

  EXPECT_THAT(DoneTable()->WatchAll()->GetChanges(), IsEmpty());
}

// What the server's announcements are sent to.
class BroadcastAddressTest : public TableServerTest {
 protected:
  struct Sent {
    int descriptor;
    std::string address;
  };

  Sent FirstAnnouncement(unsigned broadcast_address) {
    Sent sent{};
    std::promise<void> announced;
    Hooks().sendto.Set([&, told = false](int descriptor, const void*, std::size_t size, int, const sockaddr* address,
                                         socklen_t address_size) mutable {
      if (!told) {
        sent = {descriptor, std::string(reinterpret_cast<const char*>(address), address_size)};
        announced.set_value();
      }
      told = true;
      return static_cast<ssize_t>(size);
    });
    Start(broadcast_address);
    EXPECT_TRUE(IsKept(announced));
    server_->Stop();
    return sent;
  }

  // AF_INET in the byte order of this machine, then the port 1975, then `address`, then zeros.
  static std::string AddressBytes(const std::string& address) {
    const sa_family_t family = AF_INET;
    return std::string(reinterpret_cast<const char*>(&family), 2) + "\x07\xB7" + address + std::string(8, '\0');
  }
};

TEST_F(BroadcastAddressTest, IsUsedUnchangedWithTheDiscoveryPort) {
  const Sent sent = FirstAnnouncement(inet_addr("127.255.255.255"));

  EXPECT_EQ(sent.address, AddressBytes("\x7F\xFF\xFF\xFF"));
  EXPECT_EQ(sent.descriptor, calls_.Descriptor(kDiscoverer));
}

TEST_F(BroadcastAddressTest, OfAllBitsIsTheLimitedBroadcast) {
  const Sent sent = FirstAnnouncement(0xFFFFFFFF);

  EXPECT_EQ(sent.address, AddressBytes("\xFF\xFF\xFF\xFF"));
}

TEST_F(BroadcastAddressTest, MayBeTheAddressOfOneDevice) {
  const Sent sent = FirstAnnouncement(inet_addr("127.1.2.3"));

  EXPECT_EQ(sent.address, AddressBytes("\x7F\x01\x02\x03"));
}

TEST_F(TableServerTest, AnnouncesItsPortAndItsGroup) {
  std::string announcement;
  std::promise<void> announced;
  Hooks().sendto.Set([&](int, const void* bytes, std::size_t size, int, const sockaddr*, socklen_t) {
    if (announcement.empty()) {
      announcement.assign(static_cast<const char*>(bytes), size);
      announced.set_value();
    }
    return static_cast<ssize_t>(size);
  });

  Start();

  ASSERT_TRUE(IsKept(announced));
  const unsigned short port = Port();
  server_->Stop();
  EXPECT_EQ(announcement, std::string({static_cast<char>(port >> 8), static_cast<char>(port & 0xFF)}) + "group");
}

// Which of the server's own threads, counted from 1, cannot be started.
class MissingThreadTest : public TableServerTest, public testing::WithParamInterface<int> {
 protected:
  void StartWithoutThread() {
    Hooked start_thread(Hooks().start_thread, [this] {
      if (++started_ == GetParam()) ThrowNoThread();
    });
    Start();
  }

 private:
  int started_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Thread, MissingThreadTest, testing::Values(1, 2));

TEST_P(MissingThreadTest, IsToldByTheConstructor) {
  std::error_code error;

  try {
    StartWithoutThread();
  } catch (const std::system_error& thrown) {
    error = thrown.code();
  }

  EXPECT_EQ(error, std::error_code(EAGAIN, std::generic_category()));
}

TEST_P(MissingThreadTest, LeavesNoDescriptorOpen) {
  EXPECT_THROW(StartWithoutThread(), std::system_error);

  EXPECT_THAT(calls_.Calls(),
              IsSupersetOf({"close(#1)", "close(#2)", "close(#3)", "close(#4)", "close(#5)", "close(#6)"}));
}

TEST_P(MissingThreadTest, LeavesNoThread) {
  const std::ptrdiff_t before = NumberOfThreads();

  EXPECT_THROW(StartWithoutThread(), std::system_error);

  const auto deadline = std::chrono::system_clock::now() + kDeadline;
  while (NumberOfThreads() > before && std::chrono::system_clock::now() < deadline) std::this_thread::yield();
  EXPECT_EQ(NumberOfThreads(), before);
}

TEST_P(MissingThreadTest, LeavesNoDoneTable) {
  EXPECT_THROW(StartWithoutThread(), std::system_error);

  EXPECT_THAT(NamesOfLocalTables(), Not(Contains("_vrx_.ts_done.db")));
}

TEST_P(MissingThreadTest, LeavesRoomForAnotherServer) {
  EXPECT_THROW(StartWithoutThread(), std::system_error);

  Start();

  EXPECT_EQ(Client(Port()).Receive(14), kRecordOfUs);
}

TEST(TableServer, MemoryThatRunsOutAtConstructionLeavesNothingBehind) {
  const auto open = [] { return Entries("/proc/self/fd"); };
  SetLogHook({});
  const std::string long_name(100, 'n');  // Does not fit into a string itself.
  const auto table = Varnix::MakeTable("t");
  PeerTable peer_table(long_name);
  const auto descriptors = open();
  int failures = 0;
  for (bool failed = true; failed;) {
    failed = RunsOutOfMemoryAt(failures + 1, [&] {
      TableServer(long_name, long_name, table, table, long_name, inet_addr("127.255.255.255"), peer_table);
    });
    failures += failed ? 1 : 0;

    EXPECT_EQ(open(), descriptors);
    EXPECT_THAT(NamesOfLocalTables(), Not(Contains("_vrx_.ts_done." + long_name)));
    ASSERT_LT(failures, 100);
  }
  SetLogHook(DefaultLogger);

  EXPECT_GE(failures, 7);  // Three names, the table and its name, the registry of peers, the two threads.
}

TEST_F(TableServerTest, HookThatThrowsAtConstructionLeavesNothingBehind) {
  SetLogHook([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("hook"); });

  EXPECT_THROW(Start(), std::runtime_error);

  EXPECT_THAT(calls_.Calls(), IsEmpty());
  EXPECT_THAT(NamesOfLocalTables(), Not(Contains("_vrx_.ts_done.db")));
}

// Stopping.

TEST_F(TableServerTest, StopSignalsThenSetsTheDoneRowThenClosesInThisOrder) {
  Start();
  calls_.Clear();
  SetLogHook([this](LogLevel, const char* tag, const char*, va_list) { calls_.Add(tag); });

  server_->Stop();

  EXPECT_THAT(calls_.Calls(), ElementsAre("write(#4, D)", "tbl.set.ins", "close(#1)", "close(#2)", "close(#3)",
                                          "close(#4)", "close(#5)", "close(#6)"));
}

TEST_F(TableServerTest, StopSetsTheRowDoneToY) {
  Start();
  const std::shared_ptr<Varnix::Table> done_table = DoneTable();

  server_->Stop();

  EXPECT_THAT(done_table->WatchAll()->GetChanges(), ElementsAre(Varnix::Row("done", "y")));
}

TEST_F(TableServerTest, DestructionIsAStop) {
  Start();
  calls_.Clear();

  server_.reset();

  EXPECT_THAT(calls_.Calls(), ElementsAre("write(#4, D)", "close(#1)", "close(#2)", "close(#3)", "close(#4)",
                                          "close(#5)", "close(#6)"));
}

TEST_F(TableServerTest, DestructionAfterAStopTakesNoStepAgain) {
  Start();
  server_->Stop();
  log_.Clear();
  int calls = 0;
  Hooks().write.Set([&](int, const void*, std::size_t) { return ++calls; });
  Hooks().close.Set([&](int) { return ++calls; });

  server_.reset();

  EXPECT_EQ(calls, 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(TableServerTest, DoneTableGoesWithTheServer) {
  Start();

  server_.reset();

  EXPECT_THAT(NamesOfLocalTables(), Not(Contains("_vrx_.ts_done.db")));
}

TEST_F(TableServerTest, DestructionWithoutPeersIsSilentButForTheDoneRow) {
  Start();
  log_.Clear();

  server_.reset();

  EXPECT_THAT(log_.Tags(), ElementsAre("tbl.set.ins"));
}

TEST_F(TableServerTest, DonePipeStaysReadableOnceTheStopHasBegun) {
  Start();
  int unread = 0;
  bool readable = false;
  calls_.OnCall([&](const std::string& call) {
    if (call != "close(#1)") return;  // All threads have seen the byte by now.
    readable = IsReadable(calls_.Descriptor(kDoneRead));
    ioctl(calls_.Descriptor(kDoneRead), FIONREAD, &unread);
  });

  server_->Stop();

  EXPECT_TRUE(readable);
  EXPECT_EQ(unread, 1);
}

TEST_F(TableServerTest, FailedWriteToTheDonePipeIsLoggedAndTheStopGoesOn) {
  Start();
  log_.Clear();
  Hooks().write.Set([](int descriptor, const void* bytes, std::size_t size) -> ssize_t {
    Hooks().write.Real(descriptor, bytes, size);  // The threads have to end all the same.
    return FailWith{EPIPE}();
  });

  server_->Stop();

  EXPECT_THAT(log_.Lines("tblsvr.dest"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.dest", "TableServer: pipe write fail error 32", ""}));
  EXPECT_THAT(log_.Tags(), ElementsAre("tblsvr.dest", "tbl.set.ins"));
  EXPECT_THAT(calls_.Calls(), Contains("close(#6)"));
}

TEST_F(TableServerTest, WriteToTheDonePipeThatTakesNothingIsAFailure) {
  Start();
  Hooks().write.Set([](int descriptor, const void* bytes, std::size_t size) -> ssize_t {
    Hooks().write.Real(descriptor, bytes, size);
    errno = EIO;
    return 0;
  });

  server_->Stop();

  EXPECT_THAT(log_.Lines("tblsvr.dest"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.dest", "TableServer: pipe write fail error 5", ""}));
}

TEST_F(TableServerTest, StopEndsTheConnectionOfAPeerThatNeverAnswers) {
  Start();
  const Client silent(Port());
  ASSERT_EQ(silent.Receive(14), kRecordOfUs);

  server_->Stop();

  EXPECT_TRUE(silent.IsEnded());
  EXPECT_TRUE(log_.Eventually("tblsndr.dtor"));
}

TEST_F(TableServerTest, StopEndsTheConnectionOfAPeerThatReceivesRows) {
  Start();
  const Client peer(Port());
  ASSERT_EQ(peer.Receive(14), kRecordOfUs);
  peer.Send(std::string("\x00\x50\x00\x02other\x00\x09", 11));
  ASSERT_TRUE(log_.Eventually("tbl.watch.all", 2));

  server_->Stop();

  EXPECT_TRUE(peer.IsEnded());
}

TEST_F(TableServerTest, StopWaitsForTheLastPeerThread) {
  Start();
  const Client peer(Port());
  ASSERT_EQ(peer.Receive(14), kRecordOfUs);
  const std::ptrdiff_t threads_of_server = 3;
  const EndOfThePeerThread end(calls_, NumberOfThreads() - threads_of_server);
  calls_.Clear();
  calls_.OnCall([&](const std::string& call) {
    if (call == "close(#7)") end.Delay();
  });

  server_->Stop();

  EXPECT_THAT(calls_.Calls(), ElementsAre("write(#4, D)", "close(#7)", "last peer thread ends", "close(#1)",
                                          "close(#2)", "close(#3)", "close(#4)", "close(#5)", "close(#6)"));
}

TEST_F(TableServerTest, StopWaitsAlsoForThePeerThatItsOwnThreadAcceptsMeanwhile) {
  Start();
  const std::ptrdiff_t threads_of_server = 2;
  const EndOfThePeerThread end(calls_, NumberOfThreads() - threads_of_server);
  std::promise<void> accepted;
  std::atomic<bool> stop_has_begun{false};
  calls_.Clear();
  calls_.OnCall([&, stopping = gettid()](const std::string& call) {
    if (call == "write(#4, D)") stop_has_begun = true;
    if (call == "accept4(#1, 16, SOCK_CLOEXEC) = #7") {
      accepted.set_value();
      // Until the stop waits for this thread, or wrongly has done with the peers.
      const auto deadline = std::chrono::system_clock::now() + kDeadline;
      while (!(stop_has_begun && IsAsleep(stopping)) && std::chrono::system_clock::now() < deadline) {
        std::this_thread::yield();
      }
    }
    if (call == "close(#7)") end.Delay();
  });
  const Client peer(Port());
  ASSERT_TRUE(IsKept(accepted));

  server_->Stop();

  EXPECT_THAT(calls_.Calls(),
              ElementsAre("accept4(#1, 16, SOCK_CLOEXEC) = #7", "write(#4, D)", "close(#7)", "last peer thread ends",
                          "close(#1)", "close(#2)", "close(#3)", "close(#4)", "close(#5)", "close(#6)"));
}

TEST_F(TableServerTest, StopSetsTheDoneRowBeforeItWaitsForItsOwnThreads) {
  Start();
  const auto done_watcher = DoneTable()->WatchAll();
  std::promise<void> accepted;
  bool is_set = false;
  calls_.OnCall([&](const std::string& call) {
    if (call != "accept4(#1, 16, SOCK_CLOEXEC) = #7") return;
    accepted.set_value();
    const auto set = Varnix::MakeWatcherSet({done_watcher});
    is_set = set->WaitUntil(std::chrono::steady_clock::now() + kDeadline).second == done_watcher;
  });
  const Client peer(Port());
  ASSERT_TRUE(IsKept(accepted));

  server_->Stop();

  EXPECT_TRUE(is_set);
}

TEST_F(TableServerTest, StopEndsABlockedWriterWhileTheProgramFlushesAllTheTime) {
  std::promise<void> blocked;
  std::atomic<bool> told{false};
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    const bool of_a_writer = count == 2 && entries[1].events == POLLOUT;
    if (of_a_writer && Hooks().poll.Real(entries, count, 0) == 0 && !told.exchange(true)) blocked.set_value();
    return Hooks().poll.Real(entries, count, time_out);
  });
  for (int i = 0; i < 30; ++i) send_table_->Set({"k" + std::to_string(i), std::string(1000000, 'v')});
  Start();
  const Client stalled(Port());
  stalled.Send(std::string("\x00\x50\x00\x02other\x00\x09", 11));
  ASSERT_TRUE(IsKept(blocked));
  std::atomic<int> flushes{0};
  std::atomic<bool> stopped{false};
  std::thread program([&] {
    while (!stopped || flushes == 0) {
      fflush(nullptr);
      ++flushes;
    }
  });

  server_->Stop();

  stopped = true;
  program.join();
  EXPECT_THAT(calls_.Calls(), Contains("close(#7)"));
  EXPECT_THAT(log_.Lines("tblsndr.dtor"), SizeIs(1));
}

TEST_F(TableServerTest, StopEndsThePauseOfAReceiverAtOnce) {
  std::promise<void> pausing;
  std::atomic<int> pauses{0};
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    if (!IsPause(entries, count)) return Hooks().poll.Real(entries, count, time_out);
    if (++pauses == 1) pausing.set_value();
    return Hooks().poll.Real(entries, count, -1);  // Nothing but the stop ends it.
  });
  Start();
  const Client peer(Port());
  peer.Answer();
  ASSERT_TRUE(IsKept(pausing));

  server_->Stop();

  const std::string server = "TableServer for dev::proc::db(" + Address() + ")";
  EXPECT_THAT(log_.Lines("tblsvr.fnd.rcv.err.abort"),
              ElementsAre(LogLine{LogLevel::Info, "tblsvr.fnd.rcv.err.abort",
                                  server + " aborted while retrying ReceiveTable", ""}));
  EXPECT_THAT(log_.Lines("tblsvr.fnd.rcv.abort"),
              ElementsAre(LogLine{LogLevel::Info, "tblsvr.fnd.rcv.abort",
                                  server + " aborting ReceiveTable for 2130706433:9", ""}));
}

// A log hook that throws while the server stops, on the thread that stops it.
class ThrowingHookTest : public TableServerTest {
 protected:
  void ThrowAt(const std::string& tag) {
    SetLogHook([tag, stopping = std::this_thread::get_id()](LogLevel, const char* logged, const char*, va_list) {
      if (std::this_thread::get_id() == stopping && logged == tag) throw std::runtime_error(tag);
    });
  }
  static std::vector<std::string> AllClosed() {
    return {"close(#1)", "close(#2)", "close(#3)", "close(#4)", "close(#5)", "close(#6)"};
  }
};

TEST_F(ThrowingHookTest, IsHeardFromStopWhenTheDoneRowIsSet) {
  Start();
  ThrowAt("tbl.set.ins");

  EXPECT_THROW(server_->Stop(), std::runtime_error);
}

TEST_F(ThrowingHookTest, AtTheDoneRowKeepsNoStepFromBeingTaken) {
  Start();
  const std::shared_ptr<Varnix::Table> done_table = DoneTable();
  const Client peer(Port());
  ASSERT_EQ(peer.Receive(14), kRecordOfUs);
  peer.Send(std::string("\x00\x50\x00\x02other\x00\x09", 11));
  ASSERT_TRUE(log_.Eventually("tbl.watch.all", 2));
  ThrowAt("tbl.set.ins");

  EXPECT_THROW(server_->Stop(), std::runtime_error);

  SetLogHook({});
  EXPECT_THAT(done_table->WatchAll()->GetChanges(), ElementsAre(Varnix::Row("done", "y")));
  EXPECT_TRUE(peer.IsEnded());
  EXPECT_THAT(calls_.Calls(), IsSupersetOf(AllClosed()));
}

TEST_F(ThrowingHookTest, ThatFindsNoMemoryAtTheDoneRowIsFollowedByWaitingForSome) {
  Start();
  const std::shared_ptr<Varnix::Table> done_table = DoneTable();
  std::optional<FailingAllocation> failing;
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    if (std::strcmp(tag, "tbl.set.ins") != 0) return;
    failing.emplace(1);  // The next try fails as well.
    throw std::bad_alloc();
  });

  EXPECT_THROW(server_->Stop(), std::bad_alloc);

  SetLogHook({});
  EXPECT_TRUE(failing->HasFailed());
  EXPECT_THAT(done_table->WatchAll()->GetChanges(), ElementsAre(Varnix::Row("done", "y")));
  EXPECT_THAT(calls_.Calls(), IsSupersetOf(AllClosed()));
}

TEST_F(ThrowingHookTest, AtTheDonePipeKeepsNoStepFromBeingTaken) {
  Start();
  const std::shared_ptr<Varnix::Table> done_table = DoneTable();
  ThrowAt("tblsvr.dest");
  Hooks().write.Set([](int descriptor, const void* bytes, std::size_t size) -> ssize_t {
    Hooks().write.Real(descriptor, bytes, size);
    return FailWith{EPIPE}();
  });

  EXPECT_THROW(server_->Stop(), std::runtime_error);

  EXPECT_THAT(done_table->WatchAll()->GetChanges(), ElementsAre(Varnix::Row("done", "y")));
  EXPECT_THAT(calls_.Calls(), IsSupersetOf(AllClosed()));
}

TEST_F(ThrowingHookTest, DoesNotMakeDestructionThrow) {
  Start();
  ThrowAt("tbl.set.ins");

  EXPECT_NO_THROW(server_.reset());

  EXPECT_THAT(calls_.Calls(), IsSupersetOf(AllClosed()));
}

TEST_F(ThrowingHookTest, LeavesNothingForDestructionToDoAfterAStop) {
  Start();
  ThrowAt("tbl.set.ins");
  EXPECT_THROW(server_->Stop(), std::runtime_error);
  int calls = 0;
  Hooks().write.Set([&](int, const void*, std::size_t) { return ++calls; });
  Hooks().close.Set([&](int) { return ++calls; });

  server_.reset();

  EXPECT_EQ(calls, 0);
}

// A change of the network.

TEST_F(TableServerTest, NetworkChangeWritesAWToTheWakePipe) {
  Start();
  calls_.Clear();

  server_->NetworkChanged();

  EXPECT_THAT(calls_.Calls(), ElementsAre("write(#6, W)"));
}

TEST_F(TableServerTest, NetworkChangeWakesTheDiscoveryThread) {
  Start();

  server_->NetworkChanged();

  EXPECT_TRUE(log_.Eventually("tblsvr.dscv.chg"));
}

TEST_F(TableServerTest, WriteToTheWakePipeThatTakesNothingIsAFailure) {
  Start();
  Hooks().write.Set([](int, const void*, std::size_t) -> ssize_t {
    errno = 0;
    return 0;
  });

  server_->NetworkChanged();

  Hooks().write.Reset();
  EXPECT_THAT(log_.Lines("tblsvr.nwc"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.nwc", "TableServer: pipe write network changed 0", ""}));
}

TEST_F(TableServerTest, FailedWriteToTheWakePipeIsLoggedAndTheServerGoesOn) {
  Start();
  Hooks().write.Set(FailWith{EAGAIN});

  server_->NetworkChanged();

  Hooks().write.Reset();
  EXPECT_THAT(log_.Lines("tblsvr.nwc"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.nwc", "TableServer: pipe write network changed 11", ""}));
  EXPECT_EQ(Client(Port()).Receive(14), kRecordOfUs);
}

// Accepting.

TEST_F(TableServerTest, AcceptedConnectionIsServed) {
  Start();

  const Client peer(Port());

  EXPECT_EQ(peer.Receive(14), kRecordOfUs);
}

TEST_F(TableServerTest, ConnectionsAreServedSideBySide) {
  Start();

  const Client one(Port());
  const Client other(Port());

  EXPECT_EQ(one.Receive(14), kRecordOfUs);
  EXPECT_EQ(other.Receive(14), kRecordOfUs);
}

TEST_F(TableServerTest, PeerIsConnectedBackToAtTheAddressItCameFrom) {
  Start();

  const Client peer(Port(), 0x7F000002);
  peer.Answer();

  ASSERT_TRUE(log_.Eventually("tblrcvr.ctor"));
  EXPECT_THAT(log_.Lines("tblrcvr.ctor")[0].text, EndsWith(" for db:2130706434:9 starting"));
}

// Peer threads that cannot be started.

TEST_F(TableServerTest, ConnectionForWhichThereIsNoThreadIsLoggedAndClosed) {
  Start();
  Hooked start_thread(Hooks().start_thread, ThrowNoThread);

  const Client peer(Port());

  EXPECT_TRUE(peer.IsEnded());
  EXPECT_THAT(log_.Lines("tblsvr.acc.thread"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.acc.thread",
                                  "TableServer: IncomingConnection::thread error 11", ""}));
}

TEST_F(TableServerTest, ConnectionForWhichThereIsNoMemoryIsLoggedAndClosed) {
  Start();
  Hooked start_thread(Hooks().start_thread, ThrowNoMemory);

  const Client peer(Port());

  EXPECT_TRUE(peer.IsEnded());
  EXPECT_THAT(log_.Lines("tblsvr.acc.thread"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.acc.thread",
                                  "TableServer: IncomingConnection::thread error 12", ""}));
}

TEST_F(TableServerTest, PeerThreadReservesAQuarterOfAMebibyteForItsStack) {
  const StackSizesOfSenders sizes;
  Start();

  const Client peer(Port());

  EXPECT_EQ(peer.Receive(14), kRecordOfUs);
  EXPECT_THAT(sizes.Get(), ElementsAre(AllOf(Ge(kSmallStack), Lt(kLargeStack))));
}

TEST_F(TableServerTest, PeerThreadGetsALargeStackWhereThreadLocalObjectsNeedIt) {
  const StackSizesOfSenders sizes;
  Start();
  Hooked start_thread(Hooks().start_thread, [starts = std::make_shared<int>(0)] {
    if (++*starts == 1) throw std::system_error(EINVAL, std::generic_category());
  });

  const Client peer(Port());

  EXPECT_EQ(peer.Receive(14), kRecordOfUs);
  EXPECT_THAT(sizes.Get(), ElementsAre(Ge(kLargeStack)));
}

TEST_F(TableServerTest, FoundPeerForWhichThereIsNoThreadIsLogged) {
  Start();
  Hooked start_thread(Hooks().start_thread, ThrowNoThread);

  server_->FoundPeer(INADDR_LOOPBACK, 9, std::make_shared<ActiveESNs>([] {}));

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), ElementsAre(LogLine{LogLevel::Error, "tblsvr.fnd.thread",
                                                                   "TableServer: FoundPeer::thread error 11", ""}));
}

TEST_F(TableServerTest, FoundPeerForWhichThereIsNoMemoryIsLogged) {
  Start();
  Hooked start_thread(Hooks().start_thread, ThrowNoMemory);

  server_->FoundPeer(INADDR_LOOPBACK, 9, std::make_shared<ActiveESNs>([] {}));

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), ElementsAre(LogLine{LogLevel::Error, "tblsvr.fnd.thread",
                                                                   "TableServer: FoundPeer::thread error 12", ""}));
}

TEST_F(TableServerTest, PeersThatAreServedTakeNoMoreThanThreeEighthsOfTheDescriptors) {
  const DescriptorLimit descriptors(128);
  Start();
  std::vector<std::unique_ptr<Client>> peers;
  for (int i = 0; i < 48; ++i) {
    peers.push_back(std::make_unique<Client>(Port()));
    ASSERT_EQ(peers.back()->Receive(14), kRecordOfUs);
  }
  EXPECT_THAT(log_.Tags(), Not(Contains("tblsvr.acc.thread")));

  const Client refused(Port());

  EXPECT_TRUE(refused.IsEnded());
  EXPECT_THAT(log_.Lines("tblsvr.acc.thread"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.acc.thread",
                                  "TableServer: IncomingConnection::thread error 11", ""}));
  peers.clear();
  EXPECT_TRUE(log_.Eventually("tblsndr.dtor", 48));
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (Client(Port()).Receive(14) != kRecordOfUs) {
    ASSERT_LT(std::chrono::steady_clock::now(), end);  // The last of the threads counts until it is gone.
  }
}

TEST_F(TableServerTest, FoundPeerForWhichThereIsNoThreadHoldsUpNoStop) {
  Start();
  Hooked start_thread(Hooks().start_thread, ThrowNoThread);
  int released = 0;

  server_->FoundPeer(INADDR_LOOPBACK, 9, std::make_shared<ActiveESNs>([&] { ++released; }));

  EXPECT_EQ(released, 1);
}

TEST_F(TableServerTest, PeerThatCannotBeConnectedBackToIsServedAllTheSame) {
  Start();
  const Client peer(Port());
  ASSERT_EQ(peer.Receive(14), kRecordOfUs);
  Hooked start_thread(Hooks().start_thread, ThrowNoThread);

  peer.Answer();
  ASSERT_TRUE(log_.Eventually("tblsvr.fnd.thread"));
  send_table_->Set({"k", "v"});

  EXPECT_EQ(peer.Receive(6), std::string("\x00\x10\x00\x01kv", 6));
}

TEST_F(TableServerTest, NextMessageOfAPeerTriesAgainToConnectBack) {
  Start();
  {
    const Client peer(Port());
    ASSERT_EQ(peer.Receive(14), kRecordOfUs);
    Hooked start_thread(Hooks().start_thread, ThrowNoThread);
    peer.Answer();
    ASSERT_TRUE(log_.Eventually("tblsvr.fnd.thread"));
  }

  const Client peer(Port());
  peer.Answer();

  EXPECT_TRUE(log_.Eventually("tblrcvr.ctor"));
}

TEST_F(TableServerTest, PeerThatConnectsDuringTheStopIsRefusedAndNotReset) {
  Start();
  const unsigned short port = Port();
  int error = 0;
  calls_.OnCall([&](const std::string& call) {
    if (call != "close(#1)") return;
    const int socket = Hooks().socket.Real(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = ToSocketAddress({INADDR_LOOPBACK, port});
    if (Hooks().connect.Real(socket, Generic(address), sizeof address) < 0) error = errno;
    Hooks().close.Real(socket);
  });

  server_->Stop();

  EXPECT_EQ(error, ECONNREFUSED);
  EXPECT_THAT(log_.Lines("tblsvr.acc.acc"), IsEmpty());
}

// Two servers on the real discovery port, in a group that no other process has.

class TwoServersTest : public testing::Test {
 protected:
  static StartedServer Make(const std::string& uid, const std::string& database) {
    return {uid, database, Varnix::MakeTable("r"), Varnix::MakeTable("s")};
  }
  // Waits until `server` has found the other, and that it serves another database.
  bool HasHeard(const StartedServer& server, const StartedServer& other) const {
    const std::string text = "(" + AddressOf(server.Get()) +
                             ") aborting ReceiveTable for 2130706433:" + std::to_string(other.Port()) +
                             " because connected to wrong table server";
    const auto heard = [&] {
      const std::vector<LogLine> lines = log_.Lines("tblsvr.fnd.rcv.abort.svr");
      return std::any_of(lines.begin(), lines.end(),
                         [&](const LogLine& line) { return line.text.find(text) != std::string::npos; });
    };
    for (std::size_t lines = 1; !heard(); ++lines) {
      if (!log_.Eventually("tblsvr.fnd.rcv.abort.svr", lines)) return false;
    }
    return true;
  }

  LogRecorder log_;
};

TEST_F(TwoServersTest, OfTwoDatabasesShareTheDiscoveryPortAndHearEachOther) {
  const StartedServer first = Make("\3devproc", "first");
  const StartedServer second = Make("\3devproc", "second");

  first->NetworkChanged();  // Announces again: the second was not there the first time.

  EXPECT_TRUE(HasHeard(first, second));
  EXPECT_TRUE(HasHeard(second, first));
}

TEST_F(TwoServersTest, HavePortsOfTheirOwn) {
  const StartedServer first = Make("\3devproc", "first");
  const StartedServer second = Make("\3devproc", "second");

  EXPECT_NE(first.Port(), second.Port());
}

TEST_F(TwoServersTest, MayFollowOneAnotherForOneDatabase) {
  Make("\3devproc", "first").Destroy();

  const StartedServer successor = Make("\3devproc", "first");
  const StartedServer other = Make("\3devproc", "second");

  EXPECT_TRUE(HasHeard(successor, other));
}

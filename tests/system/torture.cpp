// Uses the whole interface from many threads at once. Its arguments:
//   calls SEED SECONDS   everything at random, while the log hook is replaced and sharing is switched
//   hand-over COUNT WAITERS   every change that one thread sets is taken by one of the waiters
//   resharing COUNT   a database is shared, again and again
#include <Varnix.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Random = std::mt19937;

constexpr int kThreads = 16;

int Below(Random& random, int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }

// What one thread holds; it drops the oldest when it holds too many.
template <class Held>
class Hand {
 public:
  void Take(std::shared_ptr<Held> held, Random& random) {
    if (held_.size() < 8) {
      held_.push_back(std::move(held));
    } else {
      held_[static_cast<std::size_t>(Below(random, 8))] = std::move(held);
    }
  }
  std::shared_ptr<Held> Any(Random& random) const {
    return held_.empty() ? nullptr : held_[static_cast<std::size_t>(Below(random, static_cast<int>(held_.size())))];
  }

 private:
  std::vector<std::shared_ptr<Held>> held_;
};

void SetHook(Random& random) {
  switch (Below(random, 3)) {
    case 0:
      return Varnix::SetLoggingFunction({});
    case 1:
      return Varnix::SetLoggingFunction([](Varnix::LogLevel, const char*, const char*, va_list) {});
    default:
      const auto length = std::make_shared<std::size_t>(0);
      return Varnix::SetLoggingFunction([length](Varnix::LogLevel, const char* tag, const char* format, va_list list) {
        char text[256];
        std::vsnprintf(text, sizeof text, format, list);
        *length += std::strlen(tag) + std::strlen(text);
      });
  }
}

void CallAtRandom(unsigned seed, Clock::time_point end) {
  Random random(seed);
  const std::string group = "torture " + std::to_string(getpid());
  Hand<Varnix::Table> tables;
  Hand<Varnix::Watcher> watchers;
  Hand<Varnix::WatcherSet> sets;
  tables.Take(Varnix::MakeTable("first"), random);
  while (Clock::now() < end) {
    const std::string name = "name " + std::to_string(Below(random, 4));
    const std::string key = "key " + std::to_string(Below(random, 20));
    const std::shared_ptr<Varnix::Table> table = tables.Any(random);
    const std::shared_ptr<Varnix::Watcher> watcher = watchers.Any(random);
    const std::shared_ptr<Varnix::WatcherSet> set = sets.Any(random);
    switch (Below(random, 1000)) {
      case 0:
        Varnix::SetSharingGroup(name, group, "device", std::to_string(Below(random, 3)), inet_addr("127.255.255.255"));
        break;
      case 1:
        SetHook(random);
        break;
      case 2:
        Varnix::NetworkChanged();
        break;
      default:
        switch (Below(random, 12)) {
          case 0:
            tables.Take(Varnix::MakeTable(name), random);
            break;
          case 1:
            tables.Take(Varnix::MakeSharedTable(name, key), random);
            break;
          case 2:
            tables.Take(Below(random, 2) == 0 ? Varnix::GetDatabaseTable() : Varnix::GetTableTable(name), random);
            break;
          case 3:
            watchers.Take(table->Watch(key), random);
            break;
          case 4:
            watchers.Take(table->WatchAll(), random);
            break;
          case 5:
            sets.Take(Varnix::MakeWatcherSet({watchers.Any(random), watchers.Any(random), watcher}), random);
            break;
          case 6:
            if (watcher != nullptr) watcher->GetChanges();
            break;
          case 7:
            if (set != nullptr) set->WaitUntil(Clock::now() + std::chrono::microseconds(Below(random, 500)));
            break;
          case 8: {
            std::string group_now, device, process;
            unsigned address = 0;
            Varnix::GetSharingGroup(name, group_now, device, process, &address);
            break;
          }
          case 9:
            Varnix::GetLocalTables();
            break;
          default:
            table->Set({key, std::string(static_cast<std::size_t>(Below(random, 200)), 'v')});
        }
    }
  }
}

int Calls(unsigned seed, int seconds) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < kThreads; ++number) threads.emplace_back(CallAtRandom, seed + number, end);
  for (std::thread& thread : threads) thread.join();
  return 0;
}

// Each change is set only when the one before it has been taken: a wake-up that is lost hangs.
int HandOver(long count, int waiters) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("hand-over");
  Varnix::SetLoggingFunction({});
  const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({table->WatchAll()});
  std::atomic<long> taken{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < waiters; ++number) {
    threads.emplace_back([&] {
      while (set->Wait().first.second != "end") ++taken;  // Each waiter takes one end.
    });
  }
  for (long number = 0; number < count; ++number) {
    table->Set({"k", std::to_string(number)});
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
    while (taken <= number) {
      if (Clock::now() > deadline) {
        std::printf("change %ld was not taken\n", number);
        std::_Exit(1);
      }
      std::this_thread::yield();
    }
  }
  for (int number = 0; number < waiters; ++number) table->Set({"end " + std::to_string(number), "end"});
  for (std::thread& thread : threads) thread.join();
  return taken == count ? 0 : 1;
}

int Resharing(int count) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "state");
  Varnix::SetLoggingFunction({});
  for (int number = 0; number < count; ++number) {
    table->Set({"k", std::to_string(number)});
    Varnix::SetSharingGroup("plant", "torture " + std::to_string(getpid()), "device", std::to_string(number % 2),
                            inet_addr("127.255.255.255"));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc < 2 ? "" : argv[1];
  if (mode == "calls") return Calls(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)), std::atoi(argv[3]));
  if (mode == "hand-over") return HandOver(std::atol(argv[2]), std::atoi(argv[3]));
  if (mode == "resharing") return Resharing(std::atoi(argv[2]));
  return 2;
}

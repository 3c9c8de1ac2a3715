// Ends while streams to and from a peer are alive and rows go both ways. Its arguments: the way to end, and its name.
#include <arpa/inet.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <thread>

#include "Leave.h"
#include "Statics.h"

int main(int, char** argv) {
  const auto sending = std::make_shared<std::atomic<bool>>(false);
  Varnix::SetLoggingFunction([sending](Varnix::LogLevel, const char* tag, const char*, va_list) {
    if (std::strcmp(tag, "tblsndr.strm") == 0) *sending = true;
  });
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "state");
  const std::shared_ptr<Varnix::WatcherSet> received = Varnix::MakeWatcherSet({table->Watch("of the partner")});
  Varnix::SetSharingGroup("plant", "line-4", "passer-by", argv[2], inet_addr("127.255.255.255"));
  std::thread([table, name = std::string(argv[2])] {
    for (unsigned long count = 0;; ++count) table->Set({"of " + name, std::to_string(count) + std::string(1000, '.')});
  }).detach();
  received->Wait();
  while (!*sending) std::this_thread::yield();
  return Leave(argv[1]);
}

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The limit of what sockets allow: records of the same layout, sent and received with the system calls that the library
// makes for each (SocketPeer.h), and nothing around them.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

#include "SocketPeer.h"

namespace {

class BarePeer final : public SocketPeer {
 public:
  explicit BarePeer(const PeerSettings& settings) : SocketPeer(settings) { StartServing(); }

  void Set(const std::string& key, const std::string& value) override {
    std::string record = Record(CombinedKey(key), value);
    const std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(record));
    added_.notify_all();
  }

  [[noreturn]] void Watch(const Seen& seen) override { Receive(seen); }

 private:
  void SendRows(Stream& stream) override {
    for (std::size_t next = 0;; ++next) {
      const std::string* record;
      bool more;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        added_.wait(lock, [&] { return next < records_.size(); });
        record = &records_[next];
        more = next + 1 < records_.size();
      }
      if (!stream.Send(*record, more)) return;
    }
  }

  std::mutex mutex_;
  std::condition_variable added_;
  std::deque<std::string> records_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<BarePeer>(settings); }

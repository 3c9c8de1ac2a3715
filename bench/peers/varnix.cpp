// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Varnix itself: a shared table in a database with a sharing group.

#include <Varnix.h>
#include <arpa/inet.h>

#include "Peer.h"

namespace {

class VarnixPeer final : public Peer {
 public:
  explicit VarnixPeer(const PeerSettings& settings) {
    Varnix::SetLoggingFunction({});
    if (!settings.written.empty()) written_ = Varnix::MakeSharedTable("bench", settings.written);
    if (!settings.watched.empty()) watched_ = Varnix::MakeSharedTable("bench", settings.watched);
    Varnix::SetSharingGroup("bench", "bench", "host", settings.name, inet_addr(settings.address.c_str()));
  }

  void Set(const std::string& key, const std::string& value) override { written_->Set({key, value}); }

  [[noreturn]] void Watch(const Seen& seen) override {
    const std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({watched_->WatchAll()});
    for (;;) {
      const Varnix::Row row = changes->Wait().first;
      seen(row.first, row.second);
    }
  }

 private:
  std::shared_ptr<Varnix::Table> written_;
  std::shared_ptr<Varnix::Table> watched_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<VarnixPeer>(settings); }

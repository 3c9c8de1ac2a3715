// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Varnix itself: shared tables in databases with a sharing group. A table is given as TABLE, or as DATABASE/TABLE.

#include <Varnix.h>
#include <arpa/inet.h>

#include <set>

#include "Peer.h"

namespace {

class VarnixPeer final : public Peer {
 public:
  explicit VarnixPeer(const PeerSettings& settings) {
    Varnix::SetLoggingFunction({});
    if (!settings.written.empty()) written_ = MakeTable(settings.written);
    if (!settings.watched.empty()) watched_ = MakeTable(settings.watched);
    for (const std::string& database : databases_) {
      Varnix::SetSharingGroup(database, "bench", "host", settings.name, inet_addr(settings.address.c_str()));
    }
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
  std::shared_ptr<Varnix::Table> MakeTable(const std::string& name) {
    const std::size_t slash = name.find('/');
    const std::string database = slash == name.npos ? "bench" : name.substr(0, slash);
    databases_.insert(database);
    return Varnix::MakeSharedTable(database, slash == name.npos ? name : name.substr(slash + 1));
  }

  std::set<std::string> databases_;
  std::shared_ptr<Varnix::Table> written_;
  std::shared_ptr<Varnix::Table> watched_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<VarnixPeer>(settings); }

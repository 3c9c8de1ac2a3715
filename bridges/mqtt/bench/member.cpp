// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A member of a sharing group, as a peer of a benchmark. What it writes and watches are given as DATABASE/TABLE.

#include <Varnix.h>
#include <arpa/inet.h>

#include "Peer.h"

namespace {

constexpr const char* kGroup = "bench";

class Member final : public Peer {
 public:
  explicit Member(const PeerSettings& settings) : settings_(settings) {
    Varnix::SetLoggingFunction({});
    written_ = Join(settings.written);
    watched_ = Join(settings.watched);
    Varnix::NetworkChanged();
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
  std::shared_ptr<Varnix::Table> Join(const std::string& database_and_table) const {
    if (database_and_table.empty()) return nullptr;
    const std::size_t slash = database_and_table.find('/');
    const std::string database = database_and_table.substr(0, slash);
    Varnix::SetSharingGroup(database, kGroup, "host", settings_.name, inet_addr(settings_.address.c_str()));
    return Varnix::MakeSharedTable(database, database_and_table.substr(slash + 1));
  }

  const PeerSettings settings_;
  std::shared_ptr<Varnix::Table> written_;
  std::shared_ptr<Varnix::Table> watched_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<Member>(settings); }

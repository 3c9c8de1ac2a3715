// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Cyclone DDS: a keyed topic with the name of the table; reliable, transient-local and keep-last 1, so the writer holds
// every row for those who come late. Writes are batched until a packet is full or Flush() is called (dds.h,
// dds_write_flush; configuration reference, Internal/WriteBatch). A waitset wakes the watcher, which takes many rows
// with one loan (dds.h, dds_take). Multicast on the one interface (General/Interfaces), all else at its default.

#include <dds/dds.h>

#include <cstdio>
#include <cstdlib>

#include "Peer.h"
#include "table.h"

namespace {

constexpr std::size_t kMaxTaken = 256;

dds_entity_t Checked(dds_return_t result, const char* what) {
  if (result >= 0) return result;
  std::fprintf(stderr, "%s: %s\n", what, dds_strretcode(result));
  std::abort();
}

// Says that it does multicast: a loopback interface has no flag for it, but does.
void UseInterface(const std::string& address) {
  const std::string configuration =
      "<General><Interfaces><NetworkInterface address=\"" + address + "\" multicast=\"true\"/></Interfaces></General>";
  setenv("CYCLONEDDS_URI", configuration.c_str(), 1);
}

class CyclonePeer final : public Peer {
 public:
  explicit CyclonePeer(const PeerSettings& settings) : settings_(settings), qos_(dds_create_qos(), dds_delete_qos) {
    UseInterface(settings.address);
    participant_ = Checked(dds_create_participant(DDS_DOMAIN_DEFAULT, nullptr, nullptr), "dds_create_participant");
    dds_qset_reliability(qos_.get(), DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    dds_qset_durability(qos_.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(qos_.get(), DDS_HISTORY_KEEP_LAST, 1);
    if (settings.written.empty()) return;
    dds_write_set_batch(true);
    writer_ =
        Checked(dds_create_writer(participant_, Topic(settings.written), qos_.get(), nullptr), "dds_create_writer");
  }

  void Set(const std::string& key, const std::string& value) override {
    const Bench_Row row = {const_cast<char*>(key.c_str()), const_cast<char*>(value.c_str())};
    Checked(dds_write(writer_, &row), "dds_write");
  }

  void Flush() override { dds_write_flush(writer_); }

  [[noreturn]] void Watch(const Seen& seen) override {
    const dds_entity_t reader =
        Checked(dds_create_reader(participant_, Topic(settings_.watched), qos_.get(), nullptr), "dds_create_reader");
    const dds_entity_t changes = Checked(dds_create_waitset(participant_), "dds_create_waitset");
    const dds_entity_t unread = Checked(dds_create_readcondition(reader, DDS_ANY_STATE), "dds_create_readcondition");
    Checked(dds_waitset_attach(changes, unread, 0), "dds_waitset_attach");
    void* rows[kMaxTaken] = {};  // Lent by the reader.
    dds_sample_info_t infos[kMaxTaken];
    for (;;) {
      Checked(dds_waitset_wait(changes, nullptr, 0, DDS_INFINITY), "dds_waitset_wait");
      const int count = Checked(dds_take(reader, rows, infos, kMaxTaken, kMaxTaken), "dds_take");
      for (int i = 0; i < count; ++i) {
        const Bench_Row& row = *static_cast<const Bench_Row*>(rows[i]);
        if (infos[i].valid_data) seen(row.key, row.value);
      }
      Checked(dds_return_loan(reader, rows, count), "dds_return_loan");
    }
  }

 private:
  dds_entity_t Topic(const std::string& table) const {
    return Checked(dds_create_topic(participant_, &Bench_Row_desc, table.c_str(), qos_.get(), nullptr),
                   "dds_create_topic");
  }

  const PeerSettings settings_;
  const std::unique_ptr<dds_qos_t, decltype(&dds_delete_qos)> qos_;
  dds_entity_t participant_ = 0;
  dds_entity_t writer_ = 0;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<CyclonePeer>(settings); }

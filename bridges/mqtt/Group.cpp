// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Group.h"

#include <Varnix.h>
#include <sys/resource.h>

#include <algorithm>

namespace {

// A hundred, or what the limit of descriptors allows: a quarter of it is for what is not a stream to a peer.
std::size_t MostDatabases() {
  constexpr rlim_t kMost = 100, kDescriptorsForEach = 6, kDescriptorsForOurselves = 16;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t quarter = std::max(limit.rlim_cur / 4, kDescriptorsForOurselves);
  return static_cast<std::size_t>(std::min(kMost, (quarter - kDescriptorsForOurselves) / kDescriptorsForEach));
}

}  // namespace

Group::Group(const Options& options, const Log& log) : options_(options), log_(log), most_(::MostDatabases()) {}

bool Group::Join(const std::string& database) {
  if (joined_ == most_) return false;
  ++joined_;
  Varnix::SetSharingGroup(database, options_.group, options_.device, options_.process, options_.broadcast_address);
  log_.Info("Sharing the database '" + Printable(database) + "' in the group '" + Printable(options_.group) + "'.");
  calls_ = true;
  return true;
}

void Group::Tick() {
  constexpr std::chrono::seconds kBetweenCalls(10);  // The library announces itself for six of them.
  const auto now = std::chrono::steady_clock::now();
  if (!calls_ || now < next_call_) return;
  calls_ = false;
  next_call_ = now + kBetweenCalls;
  Varnix::NetworkChanged();
}

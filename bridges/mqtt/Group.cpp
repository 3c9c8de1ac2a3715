#include "Group.h"

#include <Varnix.h>
#include <sys/resource.h>

#include <algorithm>

namespace {

// A quarter of the descriptors is for what is not a stream to a peer: for each database, and some for ourselves.
std::size_t DatabasesForTheDescriptors() {
  constexpr rlim_t kForEach = 6, kForOurselves = 16, kMost = 10'000;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t quarter = std::min<rlim_t>(limit.rlim_cur / 4, kMost * kForEach + kForOurselves);
  return quarter <= kForOurselves ? 1 : static_cast<std::size_t>((quarter - kForOurselves) / kForEach);
}

}  // namespace

Group::Group(const Options& options, const Log& log)
    : options_(options), log_(log), most_(DatabasesForTheDescriptors()) {}

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

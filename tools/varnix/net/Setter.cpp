// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Setter.h"

#include "net/Sockets.h"

namespace {

constexpr std::size_t kMostRequests = 256;

}  // namespace

Setter::Setter(Loop& loop, const Settings& settings, const OwnTable& rows)
    : loop_(loop),
      settings_(settings),
      discovery_(loop, settings.broadcast, *this),
      presence_(loop, discovery_, {settings.group, settings.database, settings.identity, settings.announces}, rows,
                *this) {}

void Setter::OnAnnouncement(const Place& place, const std::string& group) {
  const bool ours = place.port == presence_.Port() && IsOwnAddress(place.address);
  if (group != settings_.group || ours || presence_.IsConnected(place)) return;
  if (requests_.size() >= kMostRequests || requests_.count(place) > 0) return;
  requests_[place] = std::make_unique<ReceivingStream>(
      loop_, place, ReceivingStream::Answer{settings_.group, presence_.Port(), false}, *this);
}

// Those that share another database would only find that out in turn.
void Setter::OnGreeting(ReceivingStream& stream, std::string_view database, std::string_view) {
  if (database != settings_.database) stream.EndAs({End::Kind::kNotLookedFor});
}

void Setter::OnTaken(const Place&, const std::string& group) { taken_ += group == settings_.group ? 1 : 0; }

void Setter::Tidy() {
  presence_.Tidy();
  for (auto request = requests_.begin(); request != requests_.end();) {
    const bool over = request->second->IsEnded() || presence_.IsConnected(request->first);
    request = over ? requests_.erase(request) : std::next(request);
  }
}

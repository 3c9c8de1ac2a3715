// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Setter.h"

#include <algorithm>

#include "net/Sockets.h"

namespace {

constexpr std::size_t kMostRequests = 256;
constexpr std::size_t kMostMembers = 4096;  // More than can be connected.

}  // namespace

Setter::Setter(Loop& loop, const Settings& settings, const OwnTable& rows)
    : loop_(loop),
      settings_(settings),
      discovery_(loop, settings.broadcast, *this),
      presence_(loop, discovery_, {settings.group, settings.database, settings.identity, settings.announces}, rows,
                *this) {}

void Setter::Finish() {
  finished_ = true;
  presence_.Finish();
}

void Setter::OnAnnouncement(const Place& place, const std::string& group) {
  if (finished_) return;  // Nobody could connect to us.
  const bool ours = place.port == presence_.Port() && IsOwnAddress(place.address);
  if (group != settings_.group || ours || presence_.IsConnected(place)) return;
  if (requests_.size() >= kMostRequests || requests_.count(place) > 0) return;
  requests_[place] = std::make_unique<ReceivingStream>(
      loop_, place, ReceivingStream::Answer{settings_.group, presence_.Port(), false}, *this);
}

// Those that share another database would only find that out in turn, and nobody can connect once we have finished.
void Setter::OnGreeting(ReceivingStream& stream, std::string_view database, std::string_view) {
  if (finished_ || database != settings_.database) stream.EndAs({End::Kind::kNotLookedFor});
}

void Setter::OnGuest(const Place& place, const std::string& group, bool stays) {
  if (!stays || group != settings_.group) return;
  if (members_.size() >= kMostMembers && members_.count(place) == 0 && !ForgetOneLost()) return;
  members_.try_emplace(place, false);
}

// A long run may meet more members than are counted. One that has left makes room, the first by address.
bool Setter::ForgetOneLost() {
  const auto lost = std::find_if(members_.begin(), members_.end(), [this](const auto& member) {
    const auto& [place, has_taken] = member;
    return !has_taken && !presence_.IsConnected(place);
  });
  if (lost == members_.end()) return false;
  members_.erase(lost);
  return true;
}

void Setter::OnTaken(const Place& place) {
  const auto member = members_.find(place);
  if (member != members_.end()) member->second = true;
}

std::vector<Place> Setter::Untaken() const {
  std::vector<Place> places;
  for (const auto& [place, has_taken] : members_) {
    if (!has_taken) places.push_back(place);
  }
  return places;
}

std::vector<Place> Setter::Lost() const {
  std::vector<Place> places = Untaken();
  const auto is_there = [this](const Place& place) { return presence_.IsConnected(place); };
  places.erase(std::remove_if(places.begin(), places.end(), is_there), places.end());
  return places;
}

void Setter::ForgetLost() {
  for (const Place& place : Lost()) members_.erase(place);
}

void Setter::Tidy() {
  presence_.Tidy();
  for (auto request = requests_.begin(); request != requests_.end();) {
    const bool over = request->second->IsEnded() || presence_.IsConnected(request->first);
    request = over ? requests_.erase(request) : std::next(request);
  }
}

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Presence.h"

#include <algorithm>
#include <utility>

#include "net/Sockets.h"
#include "wire/Announcement.h"
#include "wire/Record.h"

namespace {

constexpr std::size_t kMostGuests = 1024;

// As members do when their network has changed: one that is lost is made good for soon.
constexpr int kBurst = 4;
constexpr std::chrono::seconds kWithinBurst{2}, kAfterBurst{60};

}  // namespace

Presence::Presence(Loop& loop, Discovery& discovery, const Settings& settings, const OwnTable& rows, Owner& owner)
    : Waiter(loop),
      loop_(loop),
      discovery_(discovery),
      settings_(settings),
      rows_(rows),
      owner_(owner),
      last_event_(Clock::now()),
      acceptor_(loop, *this) {
  if (!settings_.announced) return;
  next_announcement_ = Clock::now();
  AnnounceAsScheduled();
}

// What was missed because the process was stopped is left out.
void Presence::AnnounceAsScheduled() {
  Announce();
  ++announcements_;
  while (next_announcement_ <= announced_at_) {
    next_announcement_ += announcements_ < kBurst ? kWithinBurst : kAfterBurst;
  }
}

void Presence::Announce() {
  if (settings_.announced_before != nullptr) discovery_.Send(Encode({Port(), settings_.announced_before}));
  announcing_error_ = discovery_.Send(Encode({Port(), settings_.group}));
  strangers_.BeginRound(GreetedByAddress());
  announced_at_ = Clock::now();
}

CountsByAddress Presence::GreetedByAddress() const {
  CountsByAddress counts;
  for (const Guest& guest : guests_) counts[guest.stream->Address()] += guest.greeted ? 1 : 0;
  return counts;
}

// The other half of the descriptors is for what we do ourselves.
std::size_t Presence::MostGuests() const {
  return std::clamp<std::size_t>(MostDescriptors() / 2 / settings_.sharers, 1, kMostGuests);
}

void Presence::OnAccepted(FileDescriptor socket, std::uint32_t address) {
  if (guests_.size() >= MostGuests()) MakeRoom();
  std::string greeting;
  AppendRecord(greeting, {settings_.database, settings_.identity});
  guests_.push_back({std::make_unique<SendingStream>(loop_, std::move(socket), address, greeting, rows_)});
  last_event_ = Clock::now();
}

// At the cost of the address that has most of them.
void Presence::MakeRoom() {
  CountsByAddress counts;
  for (const Guest& guest : guests_) ++counts[guest.stream->Address()];
  const auto most = std::max_element(counts.begin(), counts.end(),
                                     [](const auto& left, const auto& right) { return left.second < right.second; });
  guests_.erase(std::find_if(guests_.begin(), guests_.end(),
                             [&](const Guest& guest) { return guest.stream->Address() == most->first; }));
}

std::size_t Presence::Unanswered() const {
  return static_cast<std::size_t>(std::count_if(guests_.begin(), guests_.end(), [](const Guest& guest) {
    return guest.stream->GetState() == SendingStream::State::kGreeting;
  }));
}

std::size_t Presence::Connected() const {
  return static_cast<std::size_t>(std::count_if(guests_.begin(), guests_.end(), [this](const Guest& guest) {
    return guest.greeted && guest.stream->Group() == settings_.group;
  }));
}

bool Presence::IsConnected(const Place& place) const {
  return std::any_of(guests_.begin(), guests_.end(),
                     [&place](const Guest& guest) { return guest.greeted && guest.stream->Peer() == place; });
}

void Presence::Finish() {
  acceptor_.Close();
  next_announcement_ = TimePoint::max();
  for (Guest& guest : guests_) guest.stream->Finish();
}

void Presence::Tidy() {
  for (Guest& guest : guests_) Look(guest);
  guests_.erase(
      std::remove_if(guests_.begin(), guests_.end(), [](const Guest& guest) { return guest.stream->IsEnded(); }),
      guests_.end());
}

void Presence::Look(Guest& guest) {
  const SendingStream& stream = *guest.stream;
  const SendingStream::State state = stream.GetState();
  if (state == SendingStream::State::kGreeting) return;
  if (state == SendingStream::State::kLeft) return strangers_.OnLeft(stream.Address());
  if (!guest.greeted && stream.Peer().port != 0) {
    guest.greeted = true;
    last_event_ = Clock::now();
    owner_.OnGuest(stream.Peer(), stream.Group(), state != SendingStream::State::kLost);
  }
  if (state == SendingStream::State::kTaken) owner_.OnTaken(stream.Peer());
}

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Observer.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <system_error>

#include "net/Sockets.h"
#include "text/Time.h"
#include "wire/CombinedKey.h"

namespace {

constexpr std::size_t kMostObservers = 1024, kMostPresences = 16, kMostAsked = 64;

// No group has such a name by chance; one that has it is told the other.
constexpr char kObserver[] = "(observer)", kOtherObserver[] = "(another observer)";

// As members try again.
constexpr std::chrono::seconds kRetryPause{2}, kRetryPeriod{30}, kQuickStream{1}, kLongStream{9};

}  // namespace

Observer::Observer(Loop& loop, const Settings& settings, Audience& audience)
    : loop_(loop), settings_(settings), audience_(audience), discovery_(loop, settings.broadcast, *this) {
  if (settings_.group) AppearIn(*settings_.group, settings_.database.value_or(""));
}

void Observer::AppearIn(const std::string& group, const std::string& database) {
  if (!settings_.announces || presences_.size() >= kMostPresences) return;
  for (const auto& presence : presences_) {
    if (presence->Group() == group && presence->Database() == database) return;
  }
  const bool alone = settings_.group && settings_.database;
  const char* const before = group == kObserver ? nullptr : kObserver;
  const Presence::Settings settings{group, database, settings_.identity, true, before, alone ? 1 : kMostPresences};
  presences_.push_back(std::make_unique<Presence>(loop_, discovery_, settings, no_rows_, *this));
}

void Observer::OnAnnouncement(const Place& place, const std::string& group) {
  if (IsOurs(place)) return audience_.OnOwnAnnouncement();
  if (IsOfObserver(place, group)) return;
  audience_.OnHeard(place, group);
  if (!settings_.group || group == *settings_.group || settings_.visits_other_groups) Learn(place, group);
}

// Observers are told from members by what they announce just before: that they are in a group in which no member is.
bool Observer::IsOfObserver(const Place& place, const std::string& group) {
  if (group != kObserver || settings_.group == kObserver) return observers_.erase(place) > 0;
  if (observers_.size() >= kMostObservers) observers_.clear();
  observers_.insert(place);
  return true;
}

bool Observer::IsOurs(const Place& place) const {
  return std::any_of(presences_.begin(), presences_.end(), [&](const auto& presence) {
    return presence->Port() == place.port && IsOwnAddress(place.address);
  });
}

// Observers give another group than that in which they were met: there is nothing to receive from them.
void Observer::OnGuest(const Place& place, const std::string& group, bool) {
  const bool of_ours = std::any_of(presences_.begin(), presences_.end(),
                                   [&](const auto& presence) { return presence->Group() == group; });
  if (!of_ours || IsOurs(place)) return;
  audience_.OnCame(place);
  Learn(place, group);
}

void Observer::Learn(const Place& place, const std::string& group) {
  const auto known = contacts_.find(place);
  if (known == contacts_.end() && contacts_.size() >= settings_.places && !MakeRoom(place.address)) {
    Member left_out;
    left_out.place = place;
    left_out.group = group;
    return audience_.OnEnd(left_out, {End::Kind::kNoRoom});
  }
  Contact& contact = contacts_[place];
  if (contact.stream || contact.enough) return;
  contact.member.place = place;
  contact.member.group = group;
  contact.retries_end = Clock::now() + kRetryPeriod;
  Visit(contact);
}

// At the cost of a place where nobody has said who they are; else of the address that has most, if that is fair.
bool Observer::MakeRoom(std::uint32_t address) {
  auto leaving = std::find_if(contacts_.begin(), contacts_.end(),
                              [](const auto& entry) { return !entry.second.met && !entry.second.enough; });
  if (leaving == contacts_.end()) {
    CountsByAddress counts;
    for (const auto& [place, contact] : contacts_) ++counts[place.address];
    const auto most = std::max_element(counts.begin(), counts.end(),
                                       [](const auto& left, const auto& right) { return left.second < right.second; });
    if (most->second <= counts[address] + 1) return false;
    leaving = contacts_.lower_bound({most->first, 0});
    audience_.OnEnd(leaving->second.member, {End::Kind::kNoRoom});
  }
  contacts_.erase(leaving);
  return true;
}

void Observer::Visit(Contact& contact) {
  const bool taken = contact.member.group == kObserver;
  contact.retry_at = TimePoint::max();
  contact.stream = std::make_unique<ReceivingStream>(
      loop_, contact.member.place, ReceivingStream::Answer{taken ? kOtherObserver : kObserver, 0}, *this);
}

void Observer::OnGreeting(ReceivingStream& stream, std::string_view database, std::string_view identity) {
  const auto found = contacts_.find(stream.Peer());
  if (found == contacts_.end() || found->second.stream.get() != &stream) return;  // Asked to connect back.
  Contact& contact = found->second;
  Name(contact.member, database, identity);
  if (!IsLookedFor(contact.member)) {
    stream.EndAs({End::Kind::kNotLookedFor});
    return audience_.OnOther(contact.member);
  }
  if (IsReceivedAlready(contact.member)) {
    stream.EndAs({End::Kind::kDuplicate});
    return audience_.OnDuplicate(contact.member);
  }
  Meet(contact);
}

void Observer::Meet(Contact& contact) {
  contact.met = true;
  AppearAmong(contact.member);
  audience_.OnMet(contact.member);
  contact.snapshot.emplace().Begin(Clock::now());
}

// Where it cannot be done, the others of that group are met when they announce themselves.
void Observer::AppearAmong(const Member& member) {
  try {
    AppearIn(member.group, member.database);
  } catch (const std::system_error&) {
  }
}

bool Observer::IsLookedFor(const Member& member) const {
  return (!settings_.group || member.group == *settings_.group) &&
         (!settings_.database || member.database == *settings_.database);
}

// A member can be reached at each address of its device, always at the same port. At another port it is another member
// that has the same name.
bool Observer::IsReceivedAlready(const Member& member) const {
  return std::any_of(contacts_.begin(), contacts_.end(), [&](const auto& entry) {
    const Member& other = entry.second.member;
    return entry.second.met && other.identity == member.identity && other.database == member.database &&
           other.place.port == member.place.port && other.place.address != member.place.address;
  });
}

void Observer::OnRow(ReceivingStream& stream, std::string_view key, std::string_view value) {
  const auto found = contacts_.find(stream.Peer());
  if (found == contacts_.end() || found->second.stream.get() != &stream) return;
  Contact& contact = found->second;
  const bool fresh = !contact.snapshot || contact.snapshot->OnRow(key);
  const NameAndKey parts = SplitCombinedKey(key);
  contact.kept += audience_.OnRow(contact.member, {parts.name, parts.key, value, TimeNow(), fresh});
}

void Observer::OnBytes(ReceivingStream& stream) {
  const auto found = contacts_.find(stream.Peer());
  if (found != contacts_.end() && found->second.snapshot) found->second.snapshot->OnBytes(Clock::now());
  KeepWithinMemory();
}

// Whoever needs most has to go.
void Observer::KeepWithinMemory() {
  const std::size_t memory =
      std::accumulate(contacts_.begin(), contacts_.end(), std::size_t{0},
                      [](std::size_t sum, const auto& entry) { return sum + entry.second.Memory(); });
  if (memory <= settings_.memory) return;
  const auto largest = std::max_element(contacts_.begin(), contacts_.end(), [](const auto& left, const auto& right) {
    return left.second.Memory() < right.second.Memory();
  });
  Contact& contact = largest->second;
  contact.enough = true;
  if (contact.stream) return contact.stream->DropAs({End::Kind::kOverLimit});
  contact.met = false;
  contact.kept = 0;
  audience_.OnEnd(contact.member, {End::Kind::kOverLimit});
}

void Observer::Tidy() {
  const TimePoint now = Clock::now();
  for (const auto& presence : presences_) presence->Tidy();
  for (auto entry = contacts_.begin(); entry != contacts_.end();) {
    Contact& contact = entry->second;
    TidyContact(contact, now);
    const bool forgotten = !contact.stream && !contact.enough && contact.retry_at == TimePoint::max();
    entry = forgotten ? contacts_.erase(entry) : std::next(entry);
  }
  const auto is_over = [this](const auto& request) {
    return request->IsEnded() || presences_.front()->IsConnected(request->Peer());
  };
  requests_.erase(std::remove_if(requests_.begin(), requests_.end(), is_over), requests_.end());
}

void Observer::TidyContact(Contact& contact, TimePoint now) {
  if (contact.stream && contact.stream->IsEnded()) OnStreamEnd(contact, now);
  if (contact.retry_at <= now) Visit(contact);
  if (contact.snapshot && IsComplete(contact, now)) {
    contact.snapshot.reset();
    contact.enough = !settings_.wants_rows || !settings_.wants_changes;
  }
  if (contact.enough) contact.stream.reset();
}

bool Observer::IsComplete(const Contact& contact, TimePoint now) const {
  if (!settings_.wants_rows) return contact.stream->IsReceiving();  // It has been answered.
  return contact.snapshot->CompleteAt() <= now && !contact.stream->IsAmidRow();
}

void Observer::OnStreamEnd(Contact& contact, TimePoint now) {
  const End end = contact.stream->GetEnd();
  const Clock::duration lasted = now - contact.stream->Begun();
  const bool met = contact.met;
  contact.stream.reset();
  contact.snapshot.reset();
  contact.met = false;
  contact.kept = 0;
  if (end.kind == End::Kind::kNotLookedFor || end.kind == End::Kind::kDuplicate) return;
  audience_.OnEnd(contact.member, end);
  if (met && lasted >= kLongStream) contact.retries_end = now + kRetryPeriod;
  const bool at_once = met && lasted >= kQuickStream;
  if (!contact.enough && now < contact.retries_end) contact.retry_at = at_once ? now : now + kRetryPause;
}

bool Observer::IsSettled() const {
  const TimePoint now = Clock::now();
  if (presences_.empty()) return false;
  const bool quiet = Unanswered() == 0 && std::all_of(presences_.begin(), presences_.end(), [&](const auto& presence) {
                       return presence->LastEvent() + Snapshot::kWhile <= now;
                     });
  return quiet && std::none_of(contacts_.begin(), contacts_.end(), [](const auto& entry) {
           return entry.second.stream && (!entry.second.met || entry.second.snapshot);
         });
}

TimePoint Observer::Deadline() const {
  const TimePoint now = Clock::now();
  TimePoint deadline = TimePoint::max();
  for (const auto& presence : presences_) {
    const TimePoint quiet = presence->LastEvent() + Snapshot::kWhile;
    if (quiet > now) deadline = std::min(deadline, quiet);
  }
  for (const auto& [place, contact] : contacts_) {
    if (contact.stream && contact.stream->IsEnded()) return now;  // It failed at once, and nothing else tells.
    deadline = std::min(deadline, contact.retry_at);
    if (contact.snapshot && !contact.stream->IsAmidRow()) deadline = std::min(deadline, contact.snapshot->CompleteAt());
  }
  return deadline;
}

int Observer::Met() const {
  return static_cast<int>(
      std::count_if(contacts_.begin(), contacts_.end(), [](const auto& entry) { return entry.second.met; }));
}

std::vector<Member> Observer::Unfinished() const {
  std::vector<Member> members;
  for (const auto& [place, contact] : contacts_) {
    if (contact.snapshot || (contact.stream && !contact.met)) members.push_back(contact.member);
  }
  return members;
}

std::size_t Observer::Unanswered() const {
  return std::accumulate(presences_.begin(), presences_.end(), std::size_t{0},
                         [](std::size_t sum, const auto& presence) { return sum + presence->Unanswered(); });
}

const CountsByAddress& Observer::Strange() const {
  static const CountsByAddress none;
  return presences_.empty() ? none : presences_.front()->Strange().Most();
}

int Observer::AnnouncingError() const { return presences_.empty() ? 0 : presences_.front()->AnnouncingError(); }

void Observer::Announce() {
  if (!presences_.empty()) presences_.front()->Announce();
}

TimePoint Observer::AnnouncedAt() const { return presences_.empty() ? TimePoint() : presences_.front()->AnnouncedAt(); }

bool Observer::AskToConnectBack(const Place& place) {
  if (presences_.empty() || requests_.size() >= kMostAsked) return false;
  const Presence& presence = *presences_.front();
  requests_.push_back(std::make_unique<ReceivingStream>(
      loop_, place, ReceivingStream::Answer{presence.Group(), presence.Port(), false}, *this));
  return true;
}

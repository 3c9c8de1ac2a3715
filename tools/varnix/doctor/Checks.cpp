// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "doctor/Checks.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>
#include <string_view>

#include "commands/Session.h"
#include "doctor/NearMiss.h"
#include "text/Printable.h"

namespace {

// Everybody has announced itself once within this time.
constexpr double kEverybodyIsHeard = 60.5;

using Findings = std::vector<Finding>;
using Members = std::vector<const SeenPlace*>;

// Nobody reads more, and those who choose long names, or many, do not fill our memory by them.
constexpr std::size_t kShownOfName = 64, kShownOfMany = 16;

std::string Quoted(const std::string& name) { return "\"" + Printable(name, kShownOfName) + "\""; }

// "press::ctl at 10.0.0.1:40213", or its address alone as long as it has said nothing.
std::string NameAndPlace(const SeenPlace& seen) {
  const Member& member = seen.member;
  if (member.identity.empty()) return PlaceText(member.place);
  return Printable(member.device, kShownOfName) + "::" + Printable(member.process, kShownOfName) + " at " +
         PlaceText(member.place);
}

// "press::ctl at 10.0.0.1:40213, pump::ctl at ...".
std::string List(const Members& members, const std::function<std::string(const SeenPlace&)>& text_of) {
  const std::size_t shown = std::min(members.size(), kShownOfMany);
  std::string text;
  for (std::size_t i = 0; i < shown; ++i) text += (i == 0 ? "" : ", ") + text_of(*members[i]);
  if (shown < members.size()) text += " and " + std::to_string(members.size() - shown) + " more";
  return text;
}

std::string Names(const Members& members) { return List(members, NameAndPlace); }

Members Select(const Evidence& evidence, const std::function<bool(const SeenPlace&)>& wanted) {
  Members members;
  for (const auto& [place, seen] : evidence.places) {
    if (wanted(seen)) members.push_back(&seen);
  }
  return members;
}

Members Among(const Members& members, const std::function<bool(const SeenPlace&)>& wanted) {
  Members selected;
  for (const SeenPlace* const seen : members) {
    if (wanted(*seen)) selected.push_back(seen);
  }
  return selected;
}

bool IsOfGroup(const Evidence& evidence, const SeenPlace& seen) { return seen.member.group == evidence.group; }

bool IsOurs(const Evidence& evidence, const SeenPlace& seen) {
  return IsOfGroup(evidence, seen) && seen.named && seen.member.database == evidence.database;
}

// Whether it had the time to do what members do.
bool IsKnownInTime(const Evidence& evidence, const SeenPlace& seen) { return seen.known <= evidence.judged_until; }

// We have left it out, whatever it did.
bool LacksRoom(const SeenPlace& seen) { return seen.end && seen.end->kind == End::Kind::kNoRoom; }

// Each check says something, also where it has nothing to look at.
Finding NobodyToJudge(const char* check) { return {true, check, "nobody to judge", "", ""}; }

// --- This device

Finding CheckRoute(const Evidence& evidence) {
  const Route& route = evidence.route;
  const std::string address = AddressText(evidence.broadcast);
  if (route.error != 0) {
    return {false, "route", "no way to " + address + ": " + std::strerror(route.error),
            "bring the network up; 255.255.255.255 needs a route: ip route add 255.255.255.255/32 dev INTERFACE",
            "tblsvr.dscv.sendto with error " + std::to_string(route.error)};
  }
  if (!route.to_everybody) {
    return {false, "route", address + " is the address of one device, not a broadcast address",
            "give the broadcast address of the members' network, or 255.255.255.255",
            "no tblrcvr.ctor, but on one member of that device"};
  }
  const std::string by = route.interface_name.empty() ? "" : " by " + route.interface_name;
  return {true, "route", address + " is reached" + by + " from " + AddressText(route.source), "", ""};
}

Finding CheckPort(const Evidence& evidence) {
  if (evidence.hearing_error == 0) return {true, "port", "UDP port 1975 can be shared", "", ""};
  return {false, "port", std::string("UDP port 1975 cannot be shared: ") + std::strerror(evidence.hearing_error),
          "find who holds it (ss -lunp sport = 1975); it must set SO_REUSEADDR, too",
          "tblsvr.dscv.bind, and the process ends"};
}

Finding CheckOwn(const Evidence& evidence) {
  if (evidence.announcing_error != 0) {
    return {false, "own", std::string("announcements cannot be sent: ") + std::strerror(evidence.announcing_error),
            "let UDP to port 1975 out of this device's firewall, and see 'route'",
            "tblsvr.dscv.sendto with error " + std::to_string(evidence.announcing_error)};
  }
  if (evidence.own_announcement) return {true, "own", "our own announcement comes back", "", ""};
  if (evidence.hearing_error != 0) {
    return {true, "own", "our own announcement is sent; whether it comes back is not heard", "", ""};
  }
  return {false, "own", "our own announcement does not come back",
          "let UDP port 1975 into this device's firewall, and see 'port' and 'route'",
          "on this device's members no tblrcvr.ctor, not even of themselves"};
}

// --- Names

// A finding for each place whose name looks like the one that was asked for.
void AddNearMisses(Findings& findings, const char* check, const std::string& asked, const Members& members,
                   const std::function<std::string(const Member&)>& name_of) {
  for (const SeenPlace* const seen : members) {
    const std::string name = name_of(seen->member), difference = NearMiss(asked, name);
    if (difference.empty()) continue;
    findings.push_back(
        {false, check,
         NameAndPlace(*seen) + " has the " + check + " " + Quoted(name) + ", which differs from " + Quoted(asked) +
             " in " + difference,
         std::string("give both the same ") + check,
         std::strcmp(check, "group") == 0 ? "no tblrcvr.ctor of that place" : "tblsvr.fnd.rcv.abort.svr"});
  }
}

// "\"line-5\" of 10.0.0.1:40213, ..."
std::string OtherNames(const Members& members, const std::function<std::string(const Member&)>& name_of) {
  return List(members,
              [&](const SeenPlace& seen) { return Quoted(name_of(seen.member)) + " of " + NameAndPlace(seen); });
}

std::string GroupOf(const Member& member) { return member.group; }
std::string DatabaseOf(const Member& member) { return member.database; }

void CheckGroup(const Evidence& evidence, Findings& findings) {
  const Members ours = Select(evidence, [&](const SeenPlace& seen) { return IsOfGroup(evidence, seen); });
  const Members others = Select(evidence, [&](const SeenPlace& seen) { return !IsOfGroup(evidence, seen); });
  AddNearMisses(findings, "group", evidence.group, others, GroupOf);
  std::string also = others.empty() ? "" : "; other groups: " + OtherNames(others, GroupOf);
  if (!ours.empty()) {
    const Members late = Among(ours, [&](const SeenPlace& seen) { return !IsKnownInTime(evidence, seen); });
    if (!late.empty()) also += "; known too late to be judged: " + Names(late);
    const Members left_out = Among(ours, LacksRoom);
    if (!left_out.empty()) also += "; left out for want of room: " + Names(left_out);
    findings.push_back(
        {true, "group", CountText(ours.size(), "member") + " of " + Quoted(evidence.group) + also, "", ""});
  } else if (evidence.strangers.empty()) {
    findings.push_back(
        {false, "group",
         "nobody of " + Quoted(evidence.group) + " was heard or came within " + SecondsText(evidence.seconds) + also,
         "see that one runs, on this network, with this group, and that UDP port 1975 gets through; "
         "--wait 61 hears everybody once",
         "no tblrcvr.ctor"});
  } else {
    findings.push_back(
        {true, "group", "members of " + Quoted(evidence.group) + " came, and left again" + also, "", ""});
  }
}

// How many at each address left at the name of our database, and have not been heard otherwise.
std::string UnnamedStrangers(const Evidence& evidence, const Members& others) {
  std::string text;
  for (auto [address, count] : evidence.strangers) {
    for (const SeenPlace* const seen : others) count -= seen->member.place.address == address ? 1 : 0;
    if (count <= 0) continue;
    text += (text.empty() ? "" : ", ") + CountText(static_cast<std::size_t>(count), "member") + " at " +
            AddressText(address);
  }
  return text;
}

void CheckDatabase(const Evidence& evidence, Findings& findings) {
  const Members ours = Select(evidence, [&](const SeenPlace& seen) { return IsOurs(evidence, seen); });
  const Members others = Select(evidence, [&](const SeenPlace& seen) {
    return IsOfGroup(evidence, seen) && seen.named && !IsOurs(evidence, seen);
  });
  AddNearMisses(findings, "database", evidence.database, others, DatabaseOf);
  const std::string unnamed = UnnamedStrangers(evidence, others);
  std::string also = others.empty() ? "" : "; other databases: " + OtherNames(others, DatabaseOf);
  if (!unnamed.empty()) also += "; of another database, not known until it announces itself: " + unnamed;
  if (!ours.empty()) {
    findings.push_back(
        {true, "database", CountText(ours.size(), "member") + " with " + Quoted(evidence.database) + also, "", ""});
  } else if (!others.empty() || !unnamed.empty()) {
    findings.push_back({false, "database", "nobody of the group has " + Quoted(evidence.database) + also,
                        unnamed.empty() ? "give both the same database" : "--wait 61 hears what they have",
                        "tblsvr.fnd.rcv.abort.svr"});
  } else {
    findings.push_back(NobodyToJudge("database"));
  }
}

// --- Conversations

struct Step {
  const char* check;
  const char* good;  // Behind the number of members.
  const char* bad;   // Behind the names of members.
  const char* todo;
  const char* log;
};

void AddStep(Findings& findings, const Step& step, const Members& all, const Members& failed) {
  if (all.empty()) return findings.push_back(NobodyToJudge(step.check));
  if (failed.empty()) {
    findings.push_back({true, step.check, CountText(all.size(), "member") + " " + step.good, "", ""});
    return;
  }
  findings.push_back({false, step.check, Names(failed) + " " + step.bad, step.todo, step.log});
}

bool IsUnreachable(const SeenPlace& seen) {
  return !seen.named && (!seen.end || seen.end->kind == End::Kind::kUnreachable);
}

void CheckReach(const Evidence& evidence, Findings& findings) {
  const Members all = Select(evidence, [&](const SeenPlace& seen) {
    return IsOfGroup(evidence, seen) && (seen.named || (IsKnownInTime(evidence, seen) && !LacksRoom(seen)));
  });
  const Members unreachable = Among(all, IsUnreachable);
  for (const SeenPlace* const seen : unreachable) {
    const std::string how = seen->end ? EndText(*seen->end) : "does not answer";
    findings.push_back({false, "reach", NameAndPlace(*seen) + " " + how,
                        "let TCP into the firewall of that device; members use ports of the system's choice",
                        "on its peers tblsvr.fnd.rcv.err, without tblrcvr.sock.conn.succ"});
  }
  const Members silent = Among(all, [](const SeenPlace& seen) { return !seen.named && !IsUnreachable(seen); });
  for (const SeenPlace* const seen : silent) {
    findings.push_back({false, "reach", NameAndPlace(*seen) + " " + EndText(*seen->end),
                        "see what listens there: it does not speak as members do, or is stopped",
                        "on its peers tblrcvr.sock.conn.succ, without tblrcvr.gotuid"});
  }
  if (all.empty()) return findings.push_back(NobodyToJudge("reach"));
  if (unreachable.size() + silent.size() > 0) return;
  findings.push_back({true, "reach", CountText(all.size(), "member") + " can be reached", "", ""});
}

void CheckWayBack(const Evidence& evidence, const Members& ours, Findings& findings) {
  if (!evidence.announced) return;
  const Members asked_in_time = Among(
      ours, [&](const SeenPlace& seen) { return seen.came || (seen.asked && *seen.asked <= evidence.judged_until); });
  AddStep(findings,
          {"back", "connected to us", "did not connect to us, also when asked to",
           "let TCP into the firewall of this device, and let it out of theirs",
           "on those members tblsvr.fnd.rcv.err, without tblrcvr.sock.conn.succ"},
          asked_in_time, Among(asked_in_time, [](const SeenPlace& seen) { return !seen.came; }));
  const Members here = Among(ours, [](const SeenPlace& seen) { return seen.came; });
  AddStep(findings,
          {"hears", "heard our announcement", "did not hear our announcement, and came only when asked to",
           "let UDP port 1975 into the firewall of that device, and see 'route'",
           "on those members no tblrcvr.ctor of this device"},
          here, Among(here, [](const SeenPlace& seen) { return seen.asked.has_value(); }));
  if (evidence.seconds < kEverybodyIsHeard) return;
  AddStep(findings,
          {"heard", "announced themselves", "did not announce themselves to us within a minute",
           "see the broadcast address that these members were given, and let UDP port 1975 into this device's firewall",
           "on this device's members no tblrcvr.ctor of those"},
          ours, Among(ours, [](const SeenPlace& seen) { return !seen.heard; }));
}

// Two members have one name if it is at two ports: at two addresses alone it is one member with several. One that has
// left may have started again.
void CheckIdentities(const Members& all, Findings& findings) {
  const Members ours = Among(all, [](const SeenPlace& seen) { return !seen.gone; });
  std::map<std::string_view, std::set<std::uint16_t>> ports;
  for (const SeenPlace* const seen : ours) ports[seen->member.identity].insert(seen->member.place.port);
  const Members twice =
      Among(ours, [&ports](const SeenPlace& seen) { return ports.at(seen.member.identity).size() > 1; });
  AddStep(findings,
          {"identity", "have a name of their own", "have one name: these do not meet, and others hear one of them",
           "give each member a device and a process that differ from those of all others",
           "behind tblrcvr.ctor of the other place: tblrcvr.gotuid with that name, without tblsvr.fnd"},
          ours, twice);
}

void CheckRows(const Members& ours, Findings& findings) {
  std::size_t rows = 0;
  for (const SeenPlace* const seen : ours) rows += seen->rows;
  const Members broken = Among(ours, [](const SeenPlace& seen) { return seen.end && !LacksRoom(seen); });
  for (const SeenPlace* const seen : broken) {
    findings.push_back(
        {false, "rows",
         CountText(seen->rows_at_end, "row") + " came before " + NameAndPlace(*seen) + " " + EndText(*seen->end),
         "see whether that process ended, or the network between", "cook.rd.rd, tblsndr.dtor"});
  }
  if (ours.empty()) return findings.push_back(NobodyToJudge("rows"));
  if (!broken.empty()) return;
  const Members none = Among(ours, [](const SeenPlace& seen) { return seen.rows == 0; });
  const std::string also = none.empty() ? "" : "; nothing is set by " + Names(none);
  findings.push_back(
      {true, "rows", CountText(rows, "row") + " came from " + CountText(ours.size(), "member") + also, "", ""});
}

}  // namespace

Findings CheckHost(const Evidence& evidence) { return {CheckRoute(evidence), CheckPort(evidence)}; }

Findings CheckMembers(const Evidence& evidence) {
  Findings findings;
  if (evidence.announced) findings.push_back(CheckOwn(evidence));
  CheckGroup(evidence, findings);
  CheckReach(evidence, findings);
  CheckDatabase(evidence, findings);
  const Members ours = Select(evidence, [&](const SeenPlace& seen) { return IsOurs(evidence, seen); });
  CheckWayBack(evidence, ours, findings);
  CheckIdentities(ours, findings);
  CheckRows(ours, findings);
  return findings;
}

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What a doctor makes of what it has seen.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "doctor/Checks.h"
#include "doctor/NearMiss.h"
#include "wire/CombinedKey.h"

namespace {

using namespace std::string_literals;

TEST(NearMiss, NamesInWhatTwoNamesDiffer) {
  EXPECT_EQ(NearMiss("line-4", "Line-4"), "upper and lower case");
  EXPECT_EQ(NearMiss("line-4", " line -4\n"), "blanks");
  EXPECT_EQ(NearMiss("line-4", "line-4\0"s), "zero bytes");
  EXPECT_EQ(NearMiss("line-4", "LINE-4 \0"s), "upper and lower case and blanks and zero bytes");
}

TEST(NearMiss, IsNothingWhereNamesAreEqualOrDifferInMore) {
  EXPECT_EQ(NearMiss("line-4", "line-4"), "");
  EXPECT_EQ(NearMiss("line-4", "line-5"), "");
  EXPECT_EQ(NearMiss("line-4", "Line-44"), "");
  EXPECT_EQ(NearMiss("line-4", ""), "");
}

// All well: one member, which has done everything that members do.
class Checks : public testing::Test {
 protected:
  Checks() {
    evidence.group = "line-4";
    evidence.database = "plant";
    evidence.broadcast = 0xFFFFFFFF;
    evidence.seconds = 61;
    evidence.route = {0, true, 0x0A000001, "eth0"};
    evidence.own_announcement = true;
    Add({0x0A000002, 1000}, "press");
  }

  SeenPlace& Add(const Place& place, const std::string& device) {
    SeenPlace& seen = evidence.places[place];
    seen.member.place = place;
    seen.member.group = "line-4";
    Name(seen.member, "plant", CombinedKey(device, "ctl"));
    seen.heard = seen.came = seen.named = true;
    seen.rows = 3;
    return seen;
  }

  SeenPlace& Press() { return evidence.places.begin()->second; }

  // "check: seen" of each fault.
  std::string Faults() const {
    std::string text;
    for (const Finding& finding : CheckMembers(evidence)) {
      if (!finding.good) text += finding.check + ": " + finding.seen + "\n";
      EXPECT_EQ(finding.good, finding.todo.empty());
      EXPECT_EQ(finding.good, finding.log.empty());
    }
    return text;
  }

  std::string Seen(const std::string& check) const {
    for (const Finding& finding : CheckMembers(evidence)) {
      if (finding.check == check) return finding.seen;
    }
    return "(none)";
  }

  Evidence evidence;
  const TimePoint now = Clock::now();
};

TEST_F(Checks, FindNothingWhereAllIsWell) {
  EXPECT_EQ(Faults(), "");
  EXPECT_EQ(Seen("heard"), "1 member announced themselves");
}

TEST_F(Checks, AfterAMinuteFindThoseWhoWereNotHeard) {
  Press().heard = false;
  EXPECT_EQ(Faults(), "heard: press::ctl at 10.0.0.2:1000 did not announce themselves to us within a minute\n");

  evidence.seconds = 5;
  EXPECT_EQ(Faults(), "");
}

TEST_F(Checks, FindThoseWhoDoNotConnectOrComeOnlyWhenAskedTo) {
  Press().asked = now;
  EXPECT_EQ(Faults(),
            "hears: press::ctl at 10.0.0.2:1000 did not hear our announcement, and came only when asked to\n");

  Press().came = false;
  EXPECT_EQ(Faults(), "back: press::ctl at 10.0.0.2:1000 did not connect to us, also when asked to\n");
}

TEST_F(Checks, DoNotJudgeWhatHadTooLittleTime) {
  evidence.judged_until = now;
  Press().came = false;
  EXPECT_EQ(Faults(), "");  // It was not asked.
  Press().asked = now + std::chrono::milliseconds(1);
  EXPECT_EQ(Faults(), "");

  SeenPlace& late = Add({0x0A000003, 1000}, "late");
  late.named = false;
  late.known = now;
  EXPECT_EQ(Faults(), "reach: late::ctl at 10.0.0.3:1000 does not answer\n");
  late.known = now + std::chrono::milliseconds(1);
  EXPECT_EQ(Faults(), "");
  EXPECT_EQ(Seen("group"), "2 members of \"line-4\"; known too late to be judged: late::ctl at 10.0.0.3:1000");
}

TEST_F(Checks, FindPortsThatAreRefusedAndThoseWhoDoNotSayWhoTheyAre) {
  Press().named = false;
  Press().end = End{End::Kind::kUnreachable, ECONNREFUSED};
  EXPECT_EQ(Faults(), "reach: press::ctl at 10.0.0.2:1000 cannot be reached: Connection refused\n");

  Press().end = End{End::Kind::kSilent};
  EXPECT_EQ(Faults(), "reach: press::ctl at 10.0.0.2:1000 accepts connections and does not say who it is\n");
}

TEST_F(Checks, TellWhoHasLeftAndIsNotKnownFromWhoIsKnown) {
  evidence.strangers = {{0x0A000002, 1}, {0x0A000003, 2}};
  SeenPlace& store = Add({0x0A000003, 1000}, "store");
  store.member.database = "store";

  EXPECT_EQ(Faults(), "");
  EXPECT_EQ(Seen("database"),
            "1 member with \"plant\"; other databases: \"store\" of store::ctl at 10.0.0.3:1000; of another database, "
            "not known until it announces itself: 1 member at 10.0.0.2, 1 member at 10.0.0.3");
}

TEST_F(Checks, SayThatTheGroupIsThereAlsoWhereAllHaveAnotherDatabase) {
  evidence.places.clear();
  evidence.strangers = {{0x0A000002, 1}};

  EXPECT_EQ(Seen("group"), "members of \"line-4\" came, and left again");
  EXPECT_EQ(Faults(),
            "database: nobody of the group has \"plant\"; of another database, not known until it announces itself: 1 "
            "member at 10.0.0.2\n");
}

TEST_F(Checks, SayOneThingAtLeastWhereNobodyIs) {
  evidence.places.clear();

  EXPECT_EQ(Faults(), "group: nobody of \"line-4\" was heard or came within 61 s\n");
  for (const char* const check : {"reach", "database", "back", "hears", "heard", "identity", "rows"}) {
    EXPECT_EQ(Seen(check), "nobody to judge") << check;
  }
}

TEST_F(Checks, TellWhetherAnnouncementsAreSentAlsoWhereNoneIsHeard) {
  evidence.hearing_error = EADDRINUSE;
  evidence.own_announcement = false;
  EXPECT_EQ(Faults(), "");
  EXPECT_EQ(Seen("own"), "our own announcement is sent; whether it comes back is not heard");

  evidence.announcing_error = EPERM;
  EXPECT_EQ(Faults(), "own: announcements cannot be sent: Operation not permitted\n");
}

TEST_F(Checks, FindDatabasesWhoseNamesLookTheSame) {
  Press().member.database = "plant \0"s;
  EXPECT_EQ(Faults(),
            "database: press::ctl at 10.0.0.2:1000 has the database \"plant \\x00\", which differs from \"plant\" in "
            "blanks and zero bytes\n"
            "database: nobody of the group has \"plant\"; other databases: \"plant \\x00\" of press::ctl at "
            "10.0.0.2:1000\n");
}

TEST_F(Checks, TakeOneNameAtTwoPortsForTwoMembersAndAtTwoAddressesForOne) {
  Add({0x0A000003, 1000}, "press");
  EXPECT_EQ(Faults(), "");

  Add({0x0A000002, 1001}, "press");
  EXPECT_EQ(Faults(),
            "identity: press::ctl at 10.0.0.2:1000, press::ctl at 10.0.0.2:1001, press::ctl at 10.0.0.3:1000 have one "
            "name: these do not meet, and others hear one of them\n");
}

TEST_F(Checks, TakeOneThatHasLeftAndStartedAgainForOne) {
  Press().OnEnd("line-4", {End::Kind::kClosed});
  Add({0x0A000002, 1001}, "press");
  EXPECT_EQ(Faults(), "rows: 3 rows came before press::ctl at 10.0.0.2:1000 has left\n");
}

TEST_F(Checks, FindAStreamThatHasEndedAlsoWhereTheMemberIsBack) {
  Press().OnEnd("line-4", {End::Kind::kClosed});
  Press().OnEnd("line-4", {End::Kind::kUnreachable, ECONNREFUSED});
  Press().OnNamed(Member(Press().member));
  Press().rows = 6;
  EXPECT_EQ(Faults(), "rows: 3 rows came before press::ctl at 10.0.0.2:1000 has left\n");

  Add({0x0A000002, 1001}, "press");  // It is there: two have one name.
  EXPECT_NE(Faults().find("identity: press::ctl at 10.0.0.2:1000, press::ctl at 10.0.0.2:1001 have one name"),
            std::string::npos);
}

TEST_F(Checks, FindNoFaultInThoseForWhomThereIsNoRoom) {
  Press().OnEnd("line-4", {End::Kind::kNoRoom});
  SeenPlace& pump = evidence.places[{0x0A000003, 1000}];
  pump.member.place = {0x0A000003, 1000};
  pump.OnEnd("line-4", {End::Kind::kNoRoom});

  EXPECT_EQ(Faults(), "");
  EXPECT_EQ(Seen("group"),
            "2 members of \"line-4\"; left out for want of room: press::ctl at 10.0.0.2:1000, 10.0.0.3:1000");
  EXPECT_EQ(Seen("reach"), "1 member can be reached");
}

TEST_F(Checks, ForgiveThatItCouldNotBeReachedToAMemberThatWasMetSince) {
  Press().named = false;
  Press().OnEnd("line-4", {End::Kind::kUnreachable, ECONNREFUSED});
  Press().OnNamed(Member(Press().member));
  EXPECT_EQ(Faults(), "");
}

TEST_F(Checks, ShowSixteenOfManyAndTheBeginningOfLongNames) {
  for (std::uint16_t i = 0; i < 2000; ++i) {
    Add({0x0A000100U + i, 1000}, "other").member.group = std::string(254, 'x');
  }
  EXPECT_EQ(Faults(), "");
  const std::string other = "\"" + std::string(63, 'x') + "~\" of other::ctl at 10.0.1.";
  const std::string seen = Seen("group");
  EXPECT_EQ(seen.find("1 member of \"line-4\"; other groups: " + other + "0:1000, " + other + "1:1000, "), 0u) << seen;
  EXPECT_EQ(seen.substr(seen.rfind(other)), other + "15:1000 and 1984 more");
}

TEST_F(Checks, ShowNamesOfOthersSoThatATerminalDoesNotObeyThem) {
  Press().member.group = "line\x1b[2J";
  evidence.places.begin()->second.member.device = "pre\nss";
  EXPECT_EQ(Seen("group"),
            "nobody of \"line-4\" was heard or came within 61 s; other groups: \"line\\x1b[2J\" of pre\\x0ass::ctl at "
            "10.0.0.2:1000");
}

}  // namespace

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the page shows, and in which order it is told.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "web/WebModel.h"

namespace {

Member MemberAt(std::uint16_t port, const std::string& device = "press") {
  Member member;
  member.place = {0x7F000001, port};
  member.device = device;
  member.process = "ctl";
  return member;
}

// The changes behind a number: "+device", "-device", "key=value".
std::vector<std::string> After(const WebModel& model, std::uint64_t number) {
  std::vector<std::string> texts;
  for (auto change = model.After(number); change != model.End(); ++change) {
    if (const auto* const member = std::get_if<const WebModel::MemberEntry*>(&change->second)) {
      texts.push_back("+" + (*member)->member.device);
    } else if (const auto* const row = std::get_if<const WebModel::RowEntry*>(&change->second)) {
      texts.push_back(std::string((*row)->key) + "=" + (*row)->value);
    } else {
      texts.push_back("-" + std::get<const WebModel::Departure*>(change->second)->member.device);
    }
  }
  return texts;
}

using Texts = std::vector<std::string>;

class WebModelTest : public testing::Test {
 protected:
  void Set(const Member& member, const char* key, const char* value) {
    memory_ += model_.SetRow(member, {"status", key, value, 1});
  }

  WebModel model_;
  std::size_t memory_ = 0;
};

TEST_F(WebModelTest, WhatHasChangedStandsBehindAllThatWasChangedBefore) {
  const Member press = MemberAt(1);
  model_.AddMember(press, 7);
  Set(press, "speed", "1");
  Set(press, "mode", "auto");
  const std::uint64_t before = model_.LastChange();
  Set(press, "speed", "2");

  EXPECT_EQ(After(model_, 0), (Texts{"+press", "mode=auto", "speed=2"}));
  EXPECT_EQ(After(model_, before), Texts{"speed=2"});
  EXPECT_EQ(After(model_, model_.LastChange()), Texts{});
}

TEST_F(WebModelTest, AMemberThatLeavesTakesItsRowsWithIt) {
  const Member press = MemberAt(1), pump = MemberAt(2, "pump");
  for (const Member& member : {press, pump}) {
    model_.AddMember(member, 7);
    Set(member, "speed", "1");
  }
  model_.RemoveMember(press.place, {}, 9);

  EXPECT_EQ(After(model_, 0), (Texts{"+pump", "speed=1", "-press"}));
  EXPECT_EQ(model_.Members().size(), 1U);
}

TEST_F(WebModelTest, APlaceWhereNobodyIsCanBeLeftWithoutATrace) {
  model_.RemoveMember({1, 2}, {}, 9);
  EXPECT_EQ(model_.LastChange(), 0U);
}

TEST_F(WebModelTest, AMemberThatComesAgainBeginsAnew) {
  const Member press = MemberAt(1);
  model_.AddMember(press, 7);
  Set(press, "speed", "1");
  model_.AddMember(press, 8);

  EXPECT_EQ(After(model_, 0), Texts{"+press"});
  EXPECT_EQ(model_.Members().at(press.place).since_us, 8);
}

TEST_F(WebModelTest, ARowOfNobodyIsNotKept) {
  Set(MemberAt(1), "speed", "1");
  EXPECT_EQ(memory_, 0U);
  EXPECT_EQ(model_.LastChange(), 0U);
}

TEST_F(WebModelTest, TheMemoryThatIsToldFollowsTheValue) {
  const Member press = MemberAt(1);
  model_.AddMember(press, 7);
  Set(press, "speed", "1234");
  const std::size_t before = memory_;
  EXPECT_GE(before, 4U);
  Set(press, "speed", "12345678");
  EXPECT_EQ(memory_, before + 4);
  Set(press, "speed", "");
  EXPECT_EQ(memory_, before - 4);
}

TEST_F(WebModelTest, AValueThatBecomesShorterKeepsNoMemoryOfTheLongerOne) {
  const Member press = MemberAt(1);
  model_.AddMember(press, 7);
  for (const std::string& shorter : {std::string(), std::string("short"), std::string(100, 'x')}) {
    Set(press, "speed", std::string(1 << 20, 'x').c_str());
    Set(press, "speed", shorter.c_str());

    const WebModel::RowEntry& row = model_.Members().at(press.place).tables.at("status").at("speed");
    EXPECT_EQ(row.value, shorter);
    EXPECT_LE(row.value.capacity(), 200U);
  }
}

TEST_F(WebModelTest, CountsGoOnWhenMembersLeave) {
  const Member press = MemberAt(1);
  model_.AddMember(press, 7);
  Set(press, "speed", "1");
  Set(press, "speed", "1");
  model_.RemoveMember(press.place, {}, 9);
  model_.AddMember(press, 10);
  Set(press, "mode", "auto");

  const WebModel::Counts counts = model_.Count();
  EXPECT_EQ(counts.changes, 3U);
  EXPECT_EQ(counts.met, 2U);
  EXPECT_EQ(counts.lost, 1U);
  EXPECT_EQ(counts.tables, 1U);
  EXPECT_EQ(counts.rows, 1U);
  EXPECT_EQ(counts.bytes, 8U);
}

TEST_F(WebModelTest, OfMembersThatComeAndGoForeverTheLastAreRemembered) {
  for (int i = 0; i < 1000; ++i) {
    model_.AddMember(MemberAt(1), i);
    model_.RemoveMember(MemberAt(1).place, {}, i);
  }
  EXPECT_EQ(After(model_, 0), Texts(64, "-press"));
  EXPECT_EQ(After(model_, model_.LastForgotten()), Texts(64, "-press"));
}

}  // namespace

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What `varnix top` shows, without a terminal.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "net/End.h"
#include "top/Rate.h"
#include "top/TopModel.h"
#include "top/TopPage.h"
#include "top/TopView.h"

namespace {

using std::chrono::seconds;

const TimePoint kNow = Clock::now();

TEST(Rate, IsThatOfTheLastSeconds) {
  Rate rate;
  EXPECT_EQ(rate.PerSecond(kNow), 0);
  for (int i = 0; i < 200; ++i) rate.Count(kNow + std::chrono::milliseconds(100 * i));

  EXPECT_NEAR(rate.PerSecond(kNow + seconds(20)), 10, 0.5);
  EXPECT_LT(rate.PerSecond(kNow + seconds(60)), 0.01);
}

class Top : public testing::Test {
 protected:
  Top() {
    press.place = {0x0A000001, 1000};
    press.device = "press";
    press.process = "ctl";
    model.AddMember(press);
  }

  std::size_t Set(const std::string& table, const std::string& key, const std::string& value, bool fresh = false) {
    return model.SetRow(press, {table, key, value, 0, fresh}, kNow);
  }

  std::string Shown(std::size_t width, std::size_t height, TimePoint at = kNow) {
    std::string text;
    const TopPage page(model, view, "line-4/plant", width, height, at);
    for (const TopPage::Line& line : page.Lines()) {
      text += line.text.substr(0, line.text.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
  }

  Member press;
  TopModel model;
  TopView view;
};

TEST_F(Top, CountsTheBytesOfTheLastValues) {
  Set("status", "speed", "12345");
  Set("status", "speed", "42");
  Set("status", "mode", "auto");

  EXPECT_EQ(model.Members().at(press.place).tables.at("status").bytes, 5u + 2 + 4 + 4);
}

TEST_F(Top, CountsMoreBytesThanMemoryCanHold) {
  const std::string shown(4096, 'x');
  const std::string_view claimed(shown.data(), std::size_t{1} << 30);  // Of which no more is read than is shown.
  for (const char* const key : {"a", "b", "c", "d", "e"}) model.SetRow(press, {"log", key, claimed, 0, false}, kNow);
  model.SetRow(press, {"log", "a", "", 0, false}, kNow);

  EXPECT_EQ(model.Members().at(press.place).tables.at("log").bytes, 5 + (std::uint64_t{4} << 30));
}

TEST_F(Top, KeepsNoMoreOfAValueThanALineShows) {
  const std::size_t kept = Set("status", "speed", std::string(1'000'000, 'x'));

  EXPECT_LT(kept, 1000u);
  EXPECT_EQ(Set("status", "speed", std::string(1'000'000, 'y')), 0u);
}

TEST_F(Top, KeepsNoMemoryOfALongValueBehindAShorterOne) {
  Set("status", "speed", std::string(1'000'000, 'x'));
  Set("status", "speed", std::string(20, 'x'));

  EXPECT_LT(model.Members().at(press.place).tables.at("status").rows.at("speed").value.capacity(), 40u);
}

TEST_F(Top, CountsOnlyChangesForRates) {
  Set("status", "speed", "1");
  EXPECT_EQ(model.RowsPerSecond(kNow), 0);

  Set("status", "speed", "2", true);
  EXPECT_GT(model.RowsPerSecond(kNow), 0);
}

TEST_F(Top, FillsTheScreen) {
  Set("status", "speed", "42");
  EXPECT_EQ(Shown(80, 11, kNow + seconds(200)),
            " varnix  line-4/plant  1 member  1 table  1 row  -/s\n"
            "MEMBER                 ADDRESS               TABLES     ROWS     BYTES   ROWS/S\n"
            "press::ctl             10.0.0.1:1000              1        1         7        -\n"
            "MEMBER                 TABLE                            ROWS     BYTES   ROWS/S\n"
            "press::ctl             status                              1         7        -\n"
            "MEMBER            TABLE        KEY              ROWS/S  AGE   VALUE\n"
            "press::ctl        status       speed                 -   3m   42\n"
            "\n\n\n"
            " q quit  s sort: last change  / filter  Tab parts  Space stop  Up Down scroll\n");
}

TEST_F(Top, ShowsTheFilterThatIsTypedInPlaceOfTrouble) {
  view.trouble = "cannot announce";
  view.filter = "spe";
  EXPECT_NE(Shown(80, 5).find("\n cannot announce\n"), std::string::npos);

  view.typing = true;
  EXPECT_NE(Shown(80, 5).find("\n filter: spe_ "), std::string::npos);
}

TEST_F(Top, NeverExceedsTheScreen) {
  for (int i = 0; i < 100; ++i) Set("table " + std::to_string(i % 7), "key " + std::to_string(i), "\xff\\\u00e9\x1b");
  for (const auto part : {TopView::Part::kAll, TopView::Part::kMembers, TopView::Part::kTables, TopView::Part::kRows}) {
    for (std::size_t width : {1u, 2u, 20u, 79u, 80u, 81u, 300u}) {
      for (std::size_t height : {1u, 2u, 3u, 4u, 10u, 24u, 200u}) {
        view.part = part;
        const TopPage page(model, view, "line-4/plant", width, height, kNow);
        ASSERT_EQ(page.Lines().size(), height);
        for (const auto& line : page.Lines()) EXPECT_LE(line.text.size(), width * 2) << line.text;
      }
    }
  }
}

TEST_F(Top, DoesNotScrollBeyondTheEnd) {
  for (int i = 0; i < 20; ++i) Set("status", std::to_string(i), "");
  view.part = TopView::Part::kRows;
  view.scrolled = 1000;

  EXPECT_NE(Shown(80, 8).find(" status       4 "), std::string::npos);
  EXPECT_EQ(view.scrolled, 15u);
}

TEST_F(Top, KeysChangeTheView) {
  EXPECT_EQ(PressKey(view, 'x', 5), TopAction::kRedraw);
  EXPECT_EQ(PressKey(view, 'q', 5), TopAction::kQuit);
  PressKey(view, kDown, 5);
  PressKey(view, kPageDown, 5);
  EXPECT_EQ(view.scrolled, 6u);
  PressKey(view, kPageUp, 5);
  PressKey(view, kPageUp, 5);
  EXPECT_EQ(view.scrolled, 0u);
}

TEST_F(Top, WhileAFilterIsTypedKeysAreItsText) {
  for (const int key : {int{'/'}, int{'q'}, int{'s'}, int{' '}, int{'x'}, int{kBackspace}}) PressKey(view, key, 5);
  EXPECT_EQ(view.filter, "qs ");
  EXPECT_TRUE(view.typing);

  PressKey(view, kEnter, 5);
  EXPECT_FALSE(view.typing);
  EXPECT_EQ(PressKey(view, 'q', 5), TopAction::kQuit);
}

TEST(End, SaysOfTheSameKindsThatSomebodyIsLeftOut) {
  using Kind = End::Kind;
  for (const Kind kind : {Kind::kUnreachable, Kind::kSilent, Kind::kLeftAtOnce, Kind::kClosed, Kind::kBroken,
                          Kind::kNotLookedFor, Kind::kDuplicate, Kind::kOverLimit, Kind::kNoRoom, Kind::kLongName}) {
    const std::string text = EndText({kind});
    EXPECT_EQ(IsLeftOut({kind}), text.find("left out") != std::string::npos) << text;
  }
}

}  // namespace

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "top/TopPage.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "commands/Session.h"
#include "text/Printable.h"

namespace {

constexpr std::size_t kNarrow = 80;  // What is wider is shared out.
constexpr std::chrono::seconds kFreshFor{2};

std::string Left(const std::string& text, std::size_t width) {
  const std::string cut = Cut(text, width);
  return cut + std::string(width - std::min(width, Columns(cut)), ' ');
}

std::string Right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// At most 6 characters.
std::string Short(double number) {
  constexpr char kUnits[] = " kMGT";
  std::size_t unit = 0;
  for (; number >= 9999.5 && unit + 2 < sizeof kUnits; ++unit) number /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f" : "%.0f%c", number, kUnits[unit]);
  return text;
}

std::string RateText(double per_second) {
  if (per_second < 0.05) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", per_second);
  return per_second < 1000 ? text : Short(per_second);
}

std::string AgeText(Clock::duration age) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
  if (seconds < 100) return std::to_string(seconds) + "s";
  if (seconds < 6000) return std::to_string(seconds / 60) + "m";
  return std::to_string(seconds / 3600) + "h";
}

char LowerCase(char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte; }

bool Contains(const std::string& text, const std::string& part) {
  return std::search(text.begin(), text.end(), part.begin(), part.end(),
                     [](char left, char right) { return LowerCase(left) == LowerCase(right); }) != text.end();
}

std::string OwnerText(const TopModel::MemberEntry& member) {
  return member.member.device + "::" + member.member.process;
}

const char* OrderText(TopView::Order order) {
  switch (order) {
    case TopView::Order::kLastChange:
      return "last change";
    case TopView::Order::kRate:
      return "rate";
    case TopView::Order::kName:
      return "name";
  }
  return "";
}

}  // namespace

TopPage::TopPage(const TopModel& model, TopView& view, const std::string& title, std::size_t width, std::size_t height,
                 TimePoint now)
    : view_(view), width_(width), now_(now) {
  Collect(model);
  AddTitle(model, title);
  AddParts(height > 2 ? height - 2 : 0);
  lines_.resize(height > 0 ? height - 1 : 0);
  AddKeys();
}

bool TopPage::IsWanted(const std::string& text) const { return view_.filter.empty() || Contains(text, view_.filter); }

void TopPage::Collect(const TopModel& model) {
  for (const auto& [place, member] : model.Members()) members_.push_back(&member);
  std::stable_sort(members_.begin(), members_.end(),
                   [](const auto* left, const auto* right) { return OwnerText(*left) < OwnerText(*right); });
  for (const TopModel::MemberEntry* const member : members_) CollectTables(*member);
  if (view_.order != TopView::Order::kRate) return;
  const auto faster = [this](const Rate& left, const Rate& right) {
    return left.PerSecond(now_) > right.PerSecond(now_);
  };
  std::stable_sort(members_.begin(), members_.end(),
                   [&](const auto* left, const auto* right) { return faster(left->rate, right->rate); });
  std::stable_sort(tables_.begin(), tables_.end(), [&](const TablePlace& left, const TablePlace& right) {
    return faster(left.table->rate, right.table->rate);
  });
}

void TopPage::CollectTables(const TopModel::MemberEntry& member) {
  std::string path = OwnerText(member) + " ";
  const std::size_t owner_size = path.size();
  for (const auto& [name, table] : member.tables) {
    path.resize(owner_size);
    path += name;
    bool any = IsWanted(path);
    path += ' ';
    const std::size_t table_size = path.size();
    for (const auto& [key, row] : table.rows) {
      path.resize(table_size);
      path += key;
      if (!IsWanted(path)) continue;
      any = true;
      rows_.push_back({&member, &name, &key, &row});
    }
    if (any) tables_.push_back({&member, &name, &table});
  }
}

// Only so many as are shown need their order.
void TopPage::SortRows(std::size_t count) {
  const auto middle = rows_.begin() + static_cast<std::ptrdiff_t>(std::min(count, rows_.size()));
  const auto newer = [](const RowPlace& left, const RowPlace& right) { return left.row->number > right.row->number; };
  const auto before = [&](const RowPlace& left, const RowPlace& right) {
    if (view_.order == TopView::Order::kName) {
      return std::tie(*left.table, *left.key, left.member->member.place) <
             std::tie(*right.table, *right.key, right.member->member.place);
    }
    if (view_.order == TopView::Order::kLastChange) return newer(left, right);
    const double left_rate = left.row->rate.PerSecond(now_), right_rate = right.row->rate.PerSecond(now_);
    return left_rate != right_rate ? left_rate > right_rate : newer(left, right);
  };
  std::partial_sort(rows_.begin(), middle, rows_.end(), before);
}

void TopPage::Add(const std::string& text, Style style) { lines_.push_back({Left(text, width_), style}); }

void TopPage::AddTitle(const TopModel& model, const std::string& title) {
  std::size_t rows = 0, tables = 0;
  for (const auto& [place, member] : model.Members()) {
    tables += member.tables.size();
    for (const auto& [name, table] : member.tables) rows += table.rows.size();
  }
  std::string text = " varnix  " + title + "  " + CountText(model.Members().size(), "member") + "  " +
                     CountText(tables, "table") + "  " + CountText(rows, "row") + "  " +
                     RateText(model.RowsPerSecond(now_)) + "/s";
  if (view_.stopped) text += "  STOPPED";
  Add(text, Style::kTitle);
}

void TopPage::AddParts(std::size_t height) {
  const std::size_t most = std::max<std::size_t>(2, height / 4);
  switch (view_.part) {
    case TopView::Part::kAll:
      AddMembers(most);
      AddTables(most);
      return AddRows(height - std::min(height, lines_.size() - 1));
    case TopView::Part::kMembers:
      return AddMembers(height);
    case TopView::Part::kTables:
      return AddTables(height);
    case TopView::Part::kRows:
      return AddRows(height);
  }
}

// Returns the first entry that is shown. The last part on the screen scrolls, and not beyond its end.
std::size_t TopPage::BeginPart(const std::string& heading, std::size_t count, std::size_t most, bool scrolls) {
  Add(heading, Style::kHeading);
  if (!scrolls) return 0;
  last_part_height_ = std::max<std::size_t>(1, most - std::min<std::size_t>(most, 1));
  view_.scrolled = std::min(view_.scrolled, count - std::min(count, last_part_height_));
  return view_.scrolled;
}

void TopPage::AddMembers(std::size_t most) {
  const std::size_t wide = width_ - std::min(width_, kNarrow) + 22;
  const std::size_t first = BeginPart(Left("MEMBER", wide) + " " + Left("ADDRESS", 21) + " " + Right("TABLES", 6) +
                                          " " + Right("ROWS", 8) + " " + Right("BYTES", 9) + " " + Right("ROWS/S", 8),
                                      members_.size(), most, view_.part == TopView::Part::kMembers);
  for (std::size_t i = first; i < members_.size() && i + 1 < first + most; ++i) {
    const TopModel::MemberEntry& entry = *members_[i];
    std::size_t rows = 0;
    std::uint64_t bytes = 0;
    for (const auto& [name, table] : entry.tables) {
      rows += table.rows.size();
      bytes += table.bytes;
    }
    Add(Left(Printable(OwnerText(entry), wide), wide) + " " + Left(PlaceText(entry.member.place), 21) + " " +
            Right(std::to_string(entry.tables.size()), 6) + " " + Right(Short(static_cast<double>(rows)), 8) + " " +
            Right(Short(static_cast<double>(bytes)), 9) + " " + Right(RateText(entry.rate.PerSecond(now_)), 8),
        Style::kPlain);
  }
}

void TopPage::AddTables(std::size_t most) {
  const std::size_t extra = width_ - std::min(width_, kNarrow), owner = 22 + extra / 2, name = 28 + extra - extra / 2;
  const std::size_t first = BeginPart(Left("MEMBER", owner) + " " + Left("TABLE", name) + " " + Right("ROWS", 8) + " " +
                                          Right("BYTES", 9) + " " + Right("ROWS/S", 8),
                                      tables_.size(), most, view_.part == TopView::Part::kTables);
  for (std::size_t i = first; i < tables_.size() && i + 1 < first + most; ++i) {
    const TablePlace& place = tables_[i];
    Add(Left(Printable(OwnerText(*place.member), owner), owner) + " " + Left(Printable(*place.name, name), name) + " " +
            Right(Short(static_cast<double>(place.table->rows.size())), 8) + " " +
            Right(Short(static_cast<double>(place.table->bytes)), 9) + " " +
            Right(RateText(place.table->rate.PerSecond(now_)), 8),
        Style::kPlain);
  }
}

void TopPage::AddRows(std::size_t most) {
  const std::size_t extra = width_ - std::min(width_, kNarrow);
  const std::size_t owner = 17 + extra / 8, table = 12 + extra / 8, key = 16 + extra / 4;
  const std::size_t value = width_ - std::min(width_, owner + table + key + 16);
  const std::size_t first =
      BeginPart(Left("MEMBER", owner) + " " + Left("TABLE", table) + " " + Left("KEY", key) + " " + Right("ROWS/S", 6) +
                    " " + Right("AGE", 4) + "   " + Left("VALUE", value),
                rows_.size(), most, view_.part == TopView::Part::kAll || view_.part == TopView::Part::kRows);
  SortRows(first + most);
  for (std::size_t i = first; i < rows_.size() && i + 1 < first + most; ++i) {
    const RowPlace& place = rows_[i];
    const Clock::duration age = now_ - place.row->changed;
    Add(Left(Printable(OwnerText(*place.member), owner), owner) + " " + Left(Printable(*place.table, table), table) +
            " " + Left(Printable(*place.key, key), key) + " " + Right(RateText(place.row->rate.PerSecond(now_)), 6) +
            " " + Right(AgeText(age), 4) + "   " + Printable(place.row->value, value),
        age < kFreshFor ? Style::kFresh : Style::kPlain);
  }
}

void TopPage::AddKeys() {
  if (view_.typing) return Add(" filter: " + view_.filter + "_   Enter: keep  Esc: none", Style::kKeys);
  if (!view_.trouble.empty()) return Add(" " + view_.trouble, Style::kKeys);
  const std::string filter = view_.filter.empty() ? "filter" : "filter: " + view_.filter;
  Add(std::string(" q quit  s sort: ") + OrderText(view_.order) + "  / " + filter + "  Tab parts  Space " +
          (view_.stopped ? "go on" : "stop") + "  Up Down scroll",
      Style::kKeys);
}

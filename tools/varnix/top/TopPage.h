// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>
#include <vector>

#include "top/TopModel.h"
#include "top/TopView.h"

// The lines of the screen.
class TopPage {
 public:
  enum class Style { kPlain, kTitle, kHeading, kFresh, kKeys };
  struct Line {
    std::string text;  // Printable, and no wider than the screen.
    Style style = Style::kPlain;
  };

  TopPage(const TopModel& model, TopView& view, const std::string& title, std::size_t width, std::size_t height,
          TimePoint now);

  // As many as the screen is high.
  const std::vector<Line>& Lines() const { return lines_; }

  // How many lines of the last part are on the screen.
  std::size_t LastPartHeight() const { return last_part_height_; }

 private:
  struct RowPlace {
    const TopModel::MemberEntry* member;
    const std::string* table;
    const std::string* key;
    const TopModel::RowEntry* row;
  };
  struct TablePlace {
    const TopModel::MemberEntry* member;
    const std::string* name;
    const TopModel::TableEntry* table;
  };

  void Collect(const TopModel& model);
  void CollectTables(const TopModel::MemberEntry& member);
  bool IsWanted(const std::string& text) const;
  void SortRows(std::size_t count);
  void AddTitle(const TopModel& model, const std::string& title);
  void AddParts(std::size_t height);
  void AddMembers(std::size_t most);
  void AddTables(std::size_t most);
  void AddRows(std::size_t most);
  void AddKeys();
  void Add(const std::string& text, Style style);
  std::size_t BeginPart(const std::string& heading, std::size_t count, std::size_t most, bool scrolls);

  TopView& view_;
  const std::size_t width_;
  const TimePoint now_;
  std::vector<const TopModel::MemberEntry*> members_;
  std::vector<TablePlace> tables_;
  std::vector<RowPlace> rows_;
  std::vector<Line> lines_;
  std::size_t last_part_height_ = 1;
};

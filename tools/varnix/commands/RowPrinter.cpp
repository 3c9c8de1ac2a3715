// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/RowPrinter.h"

#include <algorithm>
#include <cstdlib>

#include "commands/Description.h"
#include "commands/Session.h"
#include "text/Printable.h"

namespace {

constexpr char kMemberColour[] = "\x1b[36m", kTableColour[] = "\x1b[33m", kKeyColour[] = "\x1b[1m";
constexpr std::size_t kMostWidth = 40;  // One long name does not push everything else to the right for good.

// As a line of JSON.
template <typename... What>
void PrintJson(std::string& out, const What&... what) {
  JsonObject object(out);
  Describe(object, what...);
  object.End();
}

}  // namespace

bool IsColourWanted(bool terminal) {
  const char* const kind = std::getenv("TERM");
  const char* const none = std::getenv("NO_COLOR");
  return terminal && kind != nullptr && std::string(kind) != "dumb" && (none == nullptr || *none == '\0');
}

const std::string& RowPrinter::Name(const Member& member) {
  if (name_.empty() || member.identity != identity_) name_ = NameText(member);
  identity_ = member.identity;
  return name_;
}

std::string RowPrinter::Column(const std::string& text, std::size_t& width, const char* colour) const {
  const std::size_t columns = Columns(text);
  width = std::max(width, std::min(columns, kMostWidth));
  const std::string gap(columns < width ? width - columns : 0, ' ');
  return (coloured_ ? colour + text + kNoColour : text) + gap + "  ";
}

void RowPrinter::Print(std::string& out, const Member& member, const Row& row) {
  if (json_) return PrintJson(out, member, row);
  out += Column(Name(member), member_width_, kMemberColour);
  out += Column(Printable(row.table), table_width_, kTableColour);
  const std::string key = Printable(row.key);
  out += (coloured_ ? kKeyColour + key + kNoColour : key) + " = " + Printable(row.value) + "\n";
}

void RowPrinter::Print(std::string& out, const Member& member) {
  if (json_) return PrintJson(out, member);
  out += Column(NameText(member), member_width_, kMemberColour);
  out += Column(PlaceText(member.place), place_width_, "");
  out += Column(Printable(member.group), group_width_, "");
  out += Printable(member.database) + "\n";
}

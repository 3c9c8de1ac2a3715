// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/MetricsFeed.h"

#include <cstdio>
#include <iterator>

#include "text/Printable.h"

namespace {

void Begin(std::string& out, const char* name, const char* type, const char* help) {
  out.append("# HELP varnix_").append(name).append(" ").append(help);
  out.append("\n# TYPE varnix_").append(name).append(" ").append(type).append("\n");
}

void Sample(std::string& out, const char* name, const std::string& labels, std::uint64_t value) {
  out.append("varnix_").append(name).append(labels).append(" ").append(std::to_string(value)).append("\n");
}

void Single(std::string& out, const char* name, const char* type, const char* help, std::uint64_t value) {
  Begin(out, name, type, help);
  Sample(out, name, "", value);
}

// Names may hold any bytes: what cannot be seen stands as \xNN. A name is the same series wherever the command starts.
void AppendLabel(std::string& labels, const char* name, const std::string& text) {
  labels.append(labels.empty() ? "{" : ",").append(name).append("=\"");
  for (const char byte : PrintableUtf8(text)) {
    if (byte == '\\' || byte == '"') labels += '\\';
    labels += byte;
  }
  labels += '"';
}

std::string Labels(const Member& member) {
  std::string labels;
  AppendLabel(labels, "device", member.device);
  AppendLabel(labels, "process", member.process);
  AppendLabel(labels, "place", PlaceText(member.place));  // Two members may have one name.
  return labels + "}";
}

std::string SecondsText(std::int64_t time_us) {
  char text[40];
  std::snprintf(text, sizeof text, "%.3f", static_cast<double>(time_us) / 1e6);
  return text;
}

using Entry = WebModel::MemberEntry;

struct OfEachMember {
  const char* name;
  const char* type;
  const char* help;
  std::uint64_t (*value)(const Entry&);
};

constexpr OfEachMember kOfEachMember[] = {
    {"member_rows", "gauge", "Rows that the member has set.",
     [](const Entry& member) -> std::uint64_t { return member.rows; }},
    {"member_rows_size_bytes", "gauge", "Bytes of the keys and values of its rows.",
     [](const Entry& member) -> std::uint64_t { return member.bytes; }},
    {"member_changes_total", "counter", "Rows that have come from it since it came.",
     [](const Entry& member) -> std::uint64_t { return member.changes; }},
};

}  // namespace

MetricsFeed::MetricsFeed(const WebModel& model, std::size_t browsers, std::int64_t started_us)
    : model_(model), browsers_(browsers), started_us_(started_us) {}

void MetricsFeed::Fill(std::string& out) {
  const std::size_t enough = out.size() + kPiece;
  if (!begun_) WriteSingles(out);
  begun_ = true;
  const auto& members = model_.Members();
  for (; metric_ < std::size(kOfEachMember); ++metric_, member_.reset()) {
    const OfEachMember& metric = kOfEachMember[metric_];
    if (!member_) Begin(out, metric.name, metric.type, metric.help);
    for (auto member = member_ ? members.upper_bound(*member_) : members.begin(); member != members.end(); ++member) {
      Sample(out, metric.name, Labels(member->second.member), metric.value(member->second));
      member_ = member->first;
      if (out.size() >= enough) return;
    }
  }
  done_ = true;
}

void MetricsFeed::WriteSingles(std::string& out) const {
  const WebModel::Counts counts = model_.Count();
  Single(out, "members", "gauge", "Members that are there.", model_.Members().size());
  Single(out, "members_met_total", "counter", "Members that have come.", counts.met);
  Single(out, "members_lost_total", "counter", "Members that have left.", counts.lost);
  Single(out, "tables", "gauge", "Tables with rows, counted for each member.", counts.tables);
  Single(out, "rows", "gauge", "Rows, counted for each member that has set them.", counts.rows);
  Single(out, "rows_size_bytes", "gauge", "Bytes of the keys and values of all rows.", counts.bytes);
  Single(out, "changes_total", "counter", "Rows that have come, the first ones included.", counts.changes);
  Single(out, "web_browsers", "gauge", "Browsers that read events.", browsers_);
  Begin(out, "web_start_time_seconds", "gauge", "When this page began to be served, since 1970.");
  out.append("varnix_web_start_time_seconds ").append(SecondsText(started_us_)).append("\n");
}

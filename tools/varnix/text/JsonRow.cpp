// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "text/JsonRow.h"

#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "text/Base64.h"
#include "text/Time.h"

namespace {

using nlohmann::json;

// Keeps the texts of one object. Everything else, and what is inside of something else, is passed over: rows may have
// members that we do not know.
class Texts : public nlohmann::json_sax<json> {
 public:
  std::map<std::string, std::string> texts;
  std::string error;
  bool may_be_torn = false;

  bool null() override { return Pass(); }
  bool boolean(bool) override { return Pass(); }
  bool number_integer(number_integer_t) override { return Pass(); }
  bool number_unsigned(number_unsigned_t) override { return Pass(); }
  bool number_float(number_float_t, const string_t&) override { return Pass(); }
  bool binary(binary_t&) override { return Pass(); }
  bool start_array(std::size_t) override { return Open(false); }
  bool end_array() override { return Close(); }
  bool start_object(std::size_t) override { return Open(true); }
  bool end_object() override { return Close(); }

  bool key(string_t& name) override {
    if (depth_ == 1) name_ = name;
    return true;
  }

  bool string(string_t& text) override {
    if (depth_ == 1) texts[name_] = std::move(text);
    return Pass();
  }

  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception&) override {
    error = "no JSON from byte " + std::to_string(position) + " on";
    may_be_torn = true;
    return false;
  }

 private:
  bool Pass() { return depth_ > 0 || Refuse(); }

  bool Open(bool object) {
    if (depth_ == 0 && !object) return Refuse();
    ++depth_;
    return true;
  }

  bool Close() {
    --depth_;
    return true;
  }

  bool Refuse() {
    error = "no JSON object";
    return false;
  }

  std::size_t depth_ = 0;
  std::string name_;
};

// What is wrong, or nothing.
std::string Take(Texts& texts, const std::string& name, std::string& text) {
  const auto plain = texts.texts.find(name), encoded = texts.texts.find(name + "64");
  if (plain != texts.texts.end()) {
    text = std::move(plain->second);
    return "";
  }
  if (encoded == texts.texts.end()) return "no \"" + name + "\"";
  const auto decoded = FromBase64(encoded->second);
  if (!decoded) return "no base64 in \"" + name + "64\"";
  text = *decoded;
  return "";
}

std::string TakeTime(Texts& texts, std::optional<std::int64_t>& time_us) {
  const auto time = texts.texts.find("time");
  if (time == texts.texts.end()) return "";
  time_us = ParseTime(time->second);
  return time_us ? "" : "no point in time in \"time\"";
}

}  // namespace

std::string ParseJsonRow(std::string_view line, JsonRow& row) {
  Texts texts;
  if (!json::sax_parse(line.begin(), line.end(), &texts)) return texts.error;
  for (auto [name, text] :
       {std::pair{"table", &row.table}, std::pair{"key", &row.key}, std::pair{"value", &row.value}}) {
    std::string error = Take(texts, name, *text);
    if (!error.empty()) return error;
  }
  return TakeTime(texts, row.time_us);
}

bool MayBeTorn(std::string_view line) {
  Texts texts;
  json::sax_parse(line.begin(), line.end(), &texts);
  return texts.may_be_torn;
}

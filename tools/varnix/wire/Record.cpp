// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "wire/Record.h"

#include <cstdint>

namespace {

constexpr std::size_t kHeader = 4;

struct Header {
  std::size_t a, b;
};

Header DecodeHeader(std::string_view bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < kHeader; ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return {value >> 20, value & 0xFFFFF};
}

}  // namespace

void AppendRecordUpToB(std::string& stream, const Record& record) {
  const auto header = static_cast<std::uint32_t>(record.a.size() << 20 | record.b.size());
  for (int shift = 24; shift >= 0; shift -= 8) stream += static_cast<char>(header >> shift & 0xFF);
  stream.append(record.a);
}

void AppendRecord(std::string& stream, const Record& record) {
  AppendRecordUpToB(stream, record);
  stream.append(record.b);
}

void RecordReader::Append(std::string_view piece) {
  bytes_.erase(0, taken_);
  taken_ = 0;
  bytes_.append(piece);
}

std::size_t RecordReader::NextSize() const {
  if (Waiting() < kHeader) return 0;
  const Header header = DecodeHeader(Untaken());
  return kHeader + header.a + header.b;
}

bool RecordReader::Next(Record& record) {
  const std::size_t size = NextSize();
  if (size == 0 || Waiting() < size) return false;
  const Header header = DecodeHeader(Untaken());
  const std::string_view fields = Untaken().substr(kHeader);
  record = {fields.substr(0, header.a), fields.substr(header.a, header.b)};
  taken_ += size;
  return true;
}

void RecordReader::GiveBackMemory() {
  bytes_.erase(0, taken_);
  taken_ = 0;
  bytes_.shrink_to_fit();
}

void RecordReader::Drop() {
  taken_ = bytes_.size();
  GiveBackMemory();
}

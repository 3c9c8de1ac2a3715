// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/Record.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "memory/StringMemory.h"
#include "names/RecordLimits.h"
#include "network/StopExceptions.h"

namespace {

constexpr unsigned kLengthBitsB = 20;

std::uint32_t LengthOfA(const Varnix::Row& record) { return record.first.size() & kLongestRecordKey; }

std::uint32_t LengthOfB(const Varnix::Row& record) { return record.second.size() & kLongestRecordValue; }

// One item of `size` bytes, under the StreamLock of the caller. An item of 0 bytes counts as not written.
bool WriteItem(const void* bytes, std::size_t size, FILE* stream) {
  return fwrite_unlocked(bytes, size, 1, stream) == 1;
}

bool ReadItem(void* bytes, std::size_t size, FILE* stream) {
  return size == 0 || fread_unlocked(bytes, size, 1, stream) == 1;
}

bool FailOrAbort(SocketStream& stream) {
  if (stream.GetCookie().aborted) throw AbortRequested();
  return false;
}

// Under the StreamLock of the caller.
bool WriteFields(const Varnix::Row& record, SocketStream& stream) {
  const std::uint32_t length_a = LengthOfA(record);
  const std::uint32_t length_b = LengthOfB(record);
  const std::uint32_t lengths = length_a << kLengthBitsB | length_b;
  const unsigned char header[kRecordHeaderSize] = {
      static_cast<unsigned char>(lengths >> 24), static_cast<unsigned char>(lengths >> 16),
      static_cast<unsigned char>(lengths >> 8), static_cast<unsigned char>(lengths)};
  FILE* const file = stream.File();
  if (WriteItem(header, kRecordHeaderSize, file) && WriteItem(record.first.data(), length_a, file) &&
      WriteItem(record.second.data(), length_b, file)) {
    return true;
  }
  return FailOrAbort(stream);
}

}  // namespace

bool BufferRecord(const Varnix::Row& record, SocketStream& stream) {
  const StreamLock lock(stream);
  return WriteFields(record, stream);
}

bool HasEmptyField(const Varnix::Row& record) { return LengthOfA(record) == 0 || LengthOfB(record) == 0; }

bool FlushRecords(SocketStream& stream) {
  const StreamLock lock(stream);
  // stdio calls no function of the cookie while its buffer is empty.
  return fflush_unlocked(stream.File()) == 0 && stream.GetCookie().SendUnsent();
}

bool WriteRecord(const Varnix::Row& record, SocketStream& stream) {
  const StreamLock lock(stream);
  return WriteFields(record, stream) && fflush_unlocked(stream.File()) == 0;
}

bool RecordReader::Read(Varnix::Row& record) {
  if (ReadFields(record)) return true;
  stream_.GetCookie().LogReadError();
  return FailOrAbort(stream_);
}

bool RecordReader::ReadFields(Varnix::Row& record) {
  const StreamLock lock(stream_);
  unsigned char header[kRecordHeaderSize];
  if (!ReadItem(header, kRecordHeaderSize, stream_.File())) return false;
  const std::uint32_t lengths = std::uint32_t{header[0]} << 24 | std::uint32_t{header[1]} << 16 |
                                std::uint32_t{header[2]} << 8 | std::uint32_t{header[3]};
  auto& [field_a, field_b] = incoming_;
  field_a.resize(lengths >> kLengthBitsB);
  field_b.resize(lengths & kLongestRecordValue);
  if (!ReadItem(field_a.data(), field_a.size(), stream_.File()) ||
      !ReadItem(field_b.data(), field_b.size(), stream_.File())) {
    return false;
  }
  record.swap(incoming_);
  EmptyForReuse(field_a);
  EmptyForReuse(field_b);
  return true;
}

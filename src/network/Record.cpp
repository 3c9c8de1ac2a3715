#include "network/Record.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "memory/StringMemory.h"
#include "network/Cookie.h"
#include "network/StopExceptions.h"

namespace {

constexpr std::size_t kHeaderSize = 4;
constexpr unsigned kLengthBitsB = 20;
constexpr std::uint32_t kMaxLengthA = 0xFFF;
constexpr std::uint32_t kMaxLengthB = 0xFFFFF;

// One item of `size` bytes, under the StreamLock of the caller. An item of 0 bytes counts as not written.
bool WriteItem(const void* bytes, std::size_t size, FILE* stream) {
  return fwrite_unlocked(bytes, size, 1, stream) == 1;
}

bool ReadItem(void* bytes, std::size_t size, FILE* stream) {
  return size == 0 || fread_unlocked(bytes, size, 1, stream) == 1;
}

bool FailOrAbort(const Cookie& cookie) {
  if (cookie.aborted) throw AbortRequested();
  return false;
}

bool ReadFields(Varnix::Row& record, FILE* stream, Cookie& cookie) {
  const StreamLock lock(stream, cookie);
  unsigned char header[kHeaderSize];
  if (!ReadItem(header, kHeaderSize, stream)) return false;
  const std::uint32_t lengths = std::uint32_t{header[0]} << 24 | std::uint32_t{header[1]} << 16 |
                                std::uint32_t{header[2]} << 8 | std::uint32_t{header[3]};
  auto& [field_a, field_b] = cookie.incoming;
  field_a.resize(lengths >> kLengthBitsB);
  field_b.resize(lengths & kMaxLengthB);
  if (!ReadItem(field_a.data(), field_a.size(), stream) || !ReadItem(field_b.data(), field_b.size(), stream)) {
    return false;
  }
  record.swap(cookie.incoming);
  EmptyForReuse(field_a);
  EmptyForReuse(field_b);
  return true;
}

}  // namespace

bool WriteRecord(const Varnix::Row& record, FILE* stream, Cookie& cookie) {
  const std::uint32_t length_a = record.first.size() & kMaxLengthA;
  const std::uint32_t length_b = record.second.size() & kMaxLengthB;
  const std::uint32_t lengths = length_a << kLengthBitsB | length_b;
  const unsigned char header[kHeaderSize] = {
      static_cast<unsigned char>(lengths >> 24), static_cast<unsigned char>(lengths >> 16),
      static_cast<unsigned char>(lengths >> 8), static_cast<unsigned char>(lengths)};

  const StreamLock lock(stream, cookie);
  if (!WriteItem(header, kHeaderSize, stream) || !WriteItem(record.first.data(), length_a, stream) ||
      !WriteItem(record.second.data(), length_b, stream)) {
    return FailOrAbort(cookie);
  }
  return fflush_unlocked(stream) == 0;
}

bool ReadRecord(Varnix::Row& record, FILE* stream, Cookie& cookie) {
  if (ReadFields(record, stream, cookie)) return true;
  cookie.LogReadError();
  return FailOrAbort(cookie);
}

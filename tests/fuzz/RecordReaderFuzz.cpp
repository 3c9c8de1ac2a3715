// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Whatever the bytes are, and however the network splits them, the reader yields the whole records that they begin
// with; and a record that is written is read back as it was.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Expect.h"
#include "network/Record.h"
#include "support/Own.h"
#include "support/SystemCallHooks.h"

namespace {

using Sizes = std::vector<std::size_t>;

// Of a socket whose calls are all hooked.
FileDescriptor AnyDescriptor() { return Own(dup(STDERR_FILENO)); }

// Lets `recv` give the bytes in pieces of at most these sizes, over and over, and reads records until the stream ends.
std::vector<Varnix::Row> ReadAll(const std::string& bytes, const Sizes& pieces) {
  std::size_t given = 0;
  std::size_t calls = 0;
  Hooked poll(Hooks().poll, [](pollfd* entries, nfds_t, int) {
    entries[0].revents = 0;
    entries[1].revents = POLLIN;
    return 1;
  });
  Hooked recv(Hooks().recv, [&](int, void* buffer, std::size_t size, int) {
    const std::size_t count = std::min({size, pieces[calls++ % pieces.size()], bytes.size() - given});
    std::memcpy(buffer, bytes.data() + given, count);
    given += count;
    return static_cast<ssize_t>(count);
  });
  SocketStream stream(AnyDescriptor(), -1);
  EXPECT_PROPERTY(stream.Open());
  RecordReader reader(stream);
  std::vector<Varnix::Row> records;
  Varnix::Row record;
  while (reader.Read(record)) records.push_back(record);
  return records;
}

// The same without a stream.
std::vector<Varnix::Row> Parse(const std::string& bytes) {
  std::vector<Varnix::Row> records;
  std::size_t begin = 0;
  const auto byte = [&](std::size_t offset) -> std::size_t {
    return static_cast<unsigned char>(bytes[begin + offset]);
  };
  while (bytes.size() - begin >= 4) {
    const std::size_t size_a = byte(0) * 16 + byte(1) / 16;
    const std::size_t size_b = byte(1) % 16 * 65536 + byte(2) * 256 + byte(3);
    begin += 4;
    if (bytes.size() - begin < size_a + size_b) break;
    records.emplace_back(bytes.substr(begin, size_a), bytes.substr(begin + size_a, size_b));
    begin += size_a + size_b;
  }
  return records;
}

std::string Write(const Varnix::Row& record) {
  std::string sent;
  Hooked poll(Hooks().poll, [](pollfd* entries, nfds_t, int) {
    entries[0].revents = 0;
    entries[1].revents = POLLOUT;
    return 1;
  });
  Hooked send(Hooks().send, [&](int, const void* bytes, std::size_t size, int) {
    sent.append(static_cast<const char*>(bytes), size);
    return static_cast<ssize_t>(size);
  });
  SocketStream stream(AnyDescriptor(), -1);
  EXPECT_PROPERTY(stream.Open());
  EXPECT_PROPERTY(WriteRecord(record, stream));
  return sent;
}

}  // namespace

// The input: the number of sizes, the sizes of the pieces less one, and the stream. A short input has fewer sizes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t* const stream = data + 1 + std::min<std::size_t>(data[0], size - 1);
  const std::string bytes(stream, data + size);
  const Sizes one_piece = {bytes.size()};
  Sizes pieces;
  for (const std::uint8_t* byte = data + 1; byte != stream; ++byte) pieces.push_back(1U + *byte);
  if (pieces.empty()) pieces = one_piece;

  const std::vector<Varnix::Row> records = Parse(bytes);
  EXPECT_PROPERTY(ReadAll(bytes, one_piece) == records);
  EXPECT_PROPERTY(ReadAll(bytes, pieces) == records);

  for (const Varnix::Row& record : records) {
    if (record.first.empty() || record.second.empty()) continue;  // Those are not written as one item each.
    EXPECT_PROPERTY(ReadAll(Write(record), pieces) == std::vector<Varnix::Row>{record});
  }
  return 0;
}

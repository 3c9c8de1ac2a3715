// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A peer that answers anything at all is told who we are. If it answers properly, it gets every row of the table too,
// and is connected back to when its group is ours; otherwise it gets nothing more.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

#include "QuietMember.h"
#include "network/TableSender.h"
#include "support/Bytes.h"
#include "support/HookedHere.h"

namespace {

// Written out, because a mistake that is shared by both sides of a comparison would never be seen.
const std::string kIdentity = Bytes(
    "\x00\x20\x00\x0E"
    "db"
    "\x06"
    "deviceprocess");
const std::string kRows = Bytes(
    "\x00\x90\x00\x05"
    "\x05"
    "tablekey"
    "value"
    "\x00\xB0\x00\x00"
    "\x05"
    "tableempty");
constexpr int kRowCount = 2;

// What is to be made of the bytes of a peer.
struct Answer {
  Answer(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return;
    const std::size_t group_size = data[0] * 16U + data[1] / 16U;
    const std::size_t value_size = data[1] % 16U * 65536U + data[2] * 256U + data[3];
    const std::size_t record_size = 4 + group_size + value_size;
    proper = value_size == 2 && record_size <= size;
    ours = proper && group_size == 5 && std::memcmp(data + 4, "group", 5) == 0;
    if (proper) surplus = size - record_size;
  }

  bool proper = false;
  bool ours = false;
  std::size_t surplus = 0;  // Bytes that follow a proper answer.
};

std::string ReceiveUntilEnd(int descriptor) {
  std::string received;
  for (;;) {
    char piece[256];
    const ssize_t size = Hooks().recv.Real(descriptor, piece, sizeof piece, 0);
    EXPECT_PROPERTY(size >= 0 || errno == ECONNRESET);  // The end, of a socket that was closed with bytes to read.
    if (size <= 0) return received;
    received.append(piece, static_cast<std::size_t>(size));
  }
}

// Serves a peer that has sent `size` bytes and shows its surplus only by being gone.
void Serve(QuietMember& quiet, int socket, std::size_t size, const Answer& answer) {
  // stdio writes nothing behind bytes that it has read ahead, and a surplus that it has not read is the end of the
  // connection. Which of them it is, chance decides on a network. Here it is neither: no read goes beyond the answer.
  std::size_t left = size - answer.surplus;
  const HookedHere recv(Hooks().recv, [&](int descriptor, void* buffer, std::size_t room, int flags) {
    EXPECT_PROPERTY(left > 0 || !answer.proper);  // The peer has no more to say: this would wait until it goes.
    const ssize_t received = left > 0 ? Hooks().recv.Real(descriptor, buffer, std::min(room, left), flags) : 0;
    left -= static_cast<std::size_t>(received);
    return received;
  });
  // The peer goes one look after the last row was due, so that a row too many is seen as well.
  int looks = 0;
  const HookedHere poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    if (count != 1) return Hooks().poll.Real(entries, count, time_out);  // Waits of the stream itself.
    return ++looks > kRowCount + 1 ? 1 : 0;
  });
  // The look without a row comes when a second has passed: at once. A stream that outlives its peer would never end.
  std::chrono::steady_clock::time_point time;
  const HookedHere now(Hooks().now, [&] {
    EXPECT_PROPERTY(time < std::chrono::steady_clock::time_point(std::chrono::minutes(1)));
    return time += std::chrono::seconds(1);
  });

  SendTable(*quiet, Own(socket), 0x7F000001, quiet.MakeESNs(), quiet.FoundPeer());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static QuietMember quiet;
  const int found = quiet.PeersFound();
  const SocketPair pair(data, size);
  const Answer answer(data, size);

  Serve(quiet, pair.near, size, answer);

  EXPECT_PROPERTY(ReceiveUntilEnd(pair.far) == (answer.proper ? kIdentity + kRows : kIdentity));
  EXPECT_PROPERTY(quiet.PeersFound() - found == (answer.ours ? 1 : 0));
  close(pair.far);
  return 0;
}

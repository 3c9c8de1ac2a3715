// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A link between two network namespaces that takes its time: delayed_link NAMESPACE NAMESPACE MICROSECONDS
// Makes an interface "eth0" in each (paths as /proc/PID/ns/net), prints "ready", and hands every frame from one to the
// other after the delay, until standard input ends. Then prints, for each direction, the frames and the TCP segments
// with data in them: "passed FRAMES SEGMENTS FRAMES SEGMENTS".

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

struct Frame {
  Clock::time_point due;
  std::string bytes;
};

int Checked(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::exit(1);
}

int MakeInterface(const char* net_namespace) {
  Checked(setns(Checked(open(net_namespace, O_RDONLY | O_CLOEXEC), net_namespace), CLONE_NEWNET), "setns");
  const int tap = Checked(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC), "/dev/net/tun");
  ifreq request{};
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  std::strcpy(request.ifr_name, "eth0");
  Checked(ioctl(tap, TUNSETIFF, &request), "TUNSETIFF");
  return tap;
}

bool IsSegmentWithData(const std::string& frame) {
  constexpr std::size_t kEthernetHeader = 14;
  constexpr unsigned char kTcp = 6;
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(frame[kEthernetHeader + i]); };
  if (frame.size() < kEthernetHeader + 40 || byte(0) >> 4 != 4 || byte(9) != kTcp) return false;
  const std::size_t total = byte(2) * 256U + byte(3);
  const std::size_t ip_header = (byte(0) & 15) * 4U;
  const std::size_t tcp_header = (byte(ip_header + 12) >> 4) * 4U;
  return total > ip_header + tcp_header;
}

struct Direction {
  int from;
  int to;
  std::deque<Frame> on_the_way = {};
  long frames = 0;
  long segments = 0;

  void TakeIn(Clock::duration delay) {
    char bytes[65536];
    for (ssize_t size; (size = read(from, bytes, sizeof bytes)) > 0;) {
      on_the_way.push_back({Clock::now() + delay, {bytes, static_cast<std::size_t>(size)}});
      ++frames;
      if (IsSegmentWithData(on_the_way.back().bytes)) ++segments;
    }
  }

  void HandOut() {
    for (; !on_the_way.empty() && on_the_way.front().due <= Clock::now(); on_the_way.pop_front()) {
      const std::string& bytes = on_the_way.front().bytes;
      const ssize_t written = write(to, bytes.data(), bytes.size());
      static_cast<void>(written);  // An interface that is down loses frames.
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return std::fputs("usage: delayed_link NAMESPACE NAMESPACE MICROSECONDS\n", stderr), 2;
  const int left = MakeInterface(argv[1]);
  const int right = MakeInterface(argv[2]);
  const std::chrono::microseconds delay(std::atol(argv[3]));
  Direction ways[] = {{left, right}, {right, left}};
  std::puts("ready");
  std::fflush(stdout);

  pollfd entries[] = {{left, POLLIN, 0}, {right, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  while (entries[2].revents == 0) {
    Clock::time_point next = Clock::now() + std::chrono::seconds(1);
    for (const Direction& way : ways) {
      if (!way.on_the_way.empty() && way.on_the_way.front().due < next) next = way.on_the_way.front().due;
    }
    const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(next - Clock::now()).count();
    const timespec time_out{0, wait < 0 ? 0 : wait > 999999999 ? 999999999 : wait};
    ppoll(entries, 3, &time_out, nullptr);
    for (Direction& way : ways) {
      way.TakeIn(delay);
      way.HandOut();
    }
  }
  std::printf("passed %ld %ld %ld %ld\n", ways[0].frames, ways[0].segments, ways[1].frames, ways[1].segments);
}

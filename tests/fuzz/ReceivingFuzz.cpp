// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A peer that sends anything at all ends the stream that receives from it, in one of the ways that a stream can end.

#include <unistd.h>

#include <chrono>

#include "QuietMember.h"
#include "network/StopExceptions.h"
#include "network/TableReceiver.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static QuietMember quiet;
  const SocketPair pair(data, size);
  {
    Hooked socket(Hooks().socket, [&](int, int, int) { return pair.near; });
    Hooked connect(Hooks().connect, [](int, const sockaddr*, socklen_t) { return 0; });
    try {
      ReceiveTable(*quiet, {0x7F000001, 4711}, std::chrono::seconds(5), quiet.MakeESNs());
    } catch (const SelfConnect&) {
    } catch (const WrongServer&) {
    }
  }
  close(pair.far);
  quiet.ForgetReceivedRows();  // An input does the same whatever came before it, and a long run keeps nothing.
  return 0;
}

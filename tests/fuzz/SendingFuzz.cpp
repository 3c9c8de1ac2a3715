// A peer that answers anything at all ends the stream that serves it, and is connected back to at most once.

#include <unistd.h>

#include "QuietServer.h"
#include "network/TableSender.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static QuietServer quiet;
  const int found = quiet.PeersFound();
  const SocketPair pair(data, size);

  SendTable(quiet.Server(), pair.near, 0x7F000001, quiet.MakeESNs());

  EXPECT_PROPERTY(quiet.PeersFound() - found <= 1);
  close(pair.far);
  return 0;
}

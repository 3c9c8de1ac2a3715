// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "CallRecorder.h"
#include "Client.h"
#include "logging/Log.h"
#include "network/PeerPlace.h"
#include "network/ServerSockets.h"
#include "support/Descriptors.h"
#include "support/FailWith.h"
#include "support/Says.h"

namespace {

using testing::ElementsAre;
using testing::KilledBySignal;

unsigned short PortOf(const FileDescriptor& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket.Get(), Generic(address), &size);
  return ToPeerPlace(address).port;
}

int OptionOf(const FileDescriptor& socket, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(socket.Get(), SOL_SOCKET, option, &value, &size);
  return value;
}

void OpenListener() {
  unsigned short port = 0;
  OpenListeningSocket(port);
}

}  // namespace

TEST(ServerSockets, ListeningSocketIsMadeByTheseCallsInThisOrder) {
  CallRecorder calls;
  unsigned short port = 0;

  const FileDescriptor listener = OpenListeningSocket(port);

  EXPECT_THAT(calls.Calls(), ElementsAre("socket(AF_INET, SOCK_STREAM, 0) = #1", "bind(#1, 0.0.0.0:0, 16)",
                                         "getsockname(#1, 16)", "listen(#1, 10)"));
}

TEST(ServerSockets, ListeningSocketTellsItsPortInHostByteOrder) {
  unsigned short port = 0;

  const FileDescriptor listener = OpenListeningSocket(port);

  EXPECT_NE(port, 0);
  EXPECT_EQ(port, PortOf(listener));
  const Client client(port);  // It connects.
}

TEST(ServerSockets, EveryListeningSocketHasAPortOfItsOwn) {
  unsigned short one_port = 0;
  unsigned short other_port = 0;

  const FileDescriptor one = OpenListeningSocket(one_port);
  const FileDescriptor other = OpenListeningSocket(other_port);

  EXPECT_NE(one_port, other_port);
}

TEST(ServerSockets, ListeningSocketIsClosedOnExec) {
  unsigned short port = 0;

  const FileDescriptor listener = OpenListeningSocket(port);

  EXPECT_EQ(fcntl(listener.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(ServerSockets, DiscoverySocketIsMadeByTheseCallsInThisOrder) {
  CallRecorder calls;

  const FileDescriptor discoverer = OpenDiscoverySocket();

  EXPECT_THAT(calls.Calls(),
              ElementsAre("socket(AF_INET, SOCK_DGRAM, 0) = #1", "setsockopt(#1, SOL_SOCKET, SO_BROADCAST, 1)",
                          "setsockopt(#1, SOL_SOCKET, SO_REUSEADDR, 1)", "bind(#1, 0.0.0.0:1975, 16)"));
}

TEST(ServerSockets, DiscoverySocketMayBroadcast) {
  const FileDescriptor discoverer = OpenDiscoverySocket();

  EXPECT_EQ(OptionOf(discoverer, SO_BROADCAST), 1);
}

TEST(ServerSockets, DiscoverySocketIsClosedOnExec) {
  const FileDescriptor discoverer = OpenDiscoverySocket();

  EXPECT_EQ(fcntl(discoverer.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(ServerSockets, EveryDiscoverySocketOfADeviceHearsEachBroadcast) {
  const FileDescriptor one = OpenDiscoverySocket();
  const FileDescriptor other = OpenDiscoverySocket();
  ASSERT_EQ(PortOf(one), 1975);
  ASSERT_EQ(PortOf(other), 1975);
  const std::string marker = std::string(2, '\0') + "sockets of " + std::to_string(getpid());
  const sockaddr_in everyone = ToSocketAddress({0x7FFFFFFF, 1975});

  ASSERT_EQ(sendto(one.Get(), marker.data(), marker.size(), 0, Generic(everyone), sizeof everyone),
            static_cast<ssize_t>(marker.size()));

  for (const FileDescriptor* listener : {&one, &other}) {
    std::string heard;
    // Other servers of this machine may be heard as well.
    while (heard != marker && AwaitInput(listener->Get(), 10000) != 0) {
      heard.assign(256, '\0');
      const ssize_t size = recv(listener->Get(), heard.data(), heard.size(), 0);
      heard.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    }
    EXPECT_EQ(heard, marker);
  }
}

TEST(ServerSockets, ProcessesOfADeviceShareTheDiscoveryPort) {
  int told[2];
  int release[2];
  ASSERT_EQ(pipe(told), 0);
  ASSERT_EQ(pipe(release), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(release[1]);
    const FileDescriptor shared = OpenDiscoverySocket();
    char byte = write(told[1], "y", 1) == 1 ? 'y' : 'n';
    while (read(release[0], &byte, 1) > 0) {
    }
    _exit(0);
  }
  close(told[1]);
  char bound = 'n';
  EXPECT_EQ(read(told[0], &bound, 1), 1) << "the child has no socket";

  const FileDescriptor discoverer = OpenDiscoverySocket();

  EXPECT_EQ(PortOf(discoverer), 1975);
  for (const int descriptor : {told[0], release[0], release[1]}) close(descriptor);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(ServerSockets, DonePipeIsMadeByTheseCallsInThisOrder) {
  CallRecorder calls;

  const Pipe done = OpenDonePipe();

  EXPECT_THAT(calls.Calls(), ElementsAre("pipe2(O_CLOEXEC) = #1, #2"));
  EXPECT_EQ(done.read_end.Get(), calls.Descriptor(1));
  EXPECT_EQ(done.write_end.Get(), calls.Descriptor(2));
}

TEST(ServerSockets, WakePipeIsMadeByTheseCallsInThisOrder) {
  CallRecorder calls;

  const Pipe wake = OpenWakePipe();

  EXPECT_THAT(calls.Calls(), ElementsAre("pipe2(O_CLOEXEC) = #1, #2"));
  EXPECT_EQ(wake.read_end.Get(), calls.Descriptor(1));
  EXPECT_EQ(wake.write_end.Get(), calls.Descriptor(2));
}

TEST(ServerSockets, PipesAreClosedOnExec) {
  const Pipe pipe = OpenDonePipe();

  EXPECT_EQ(fcntl(pipe.read_end.Get(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(pipe.write_end.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(ServerSockets, FailedListeningSocketEndsTheProcess) {
  const auto open = [] {
    Hooked socket(Hooks().socket, FailWith{EMFILE});
    OpenListener();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.lstn.sock: TableServer: listen socket error 24: Too many open files\n"));
}

TEST(ServerSockets, FailedBindOfTheListeningSocketEndsTheProcess) {
  const auto open = [] {
    Hooked bind(Hooks().bind, FailWith{EADDRINUSE});
    OpenListener();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.lstn.bind: TableServer: listener bind error 98: Address already in use\n"));
}

TEST(ServerSockets, FailedGetsocknameEndsTheProcess) {
  const auto open = [] {
    Hooked getsockname(Hooks().getsockname, FailWith{ENOBUFS});
    OpenListener();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.lstn.name: TableServer: getsockname error 105: No buffer space available\n"));
}

TEST(ServerSockets, FailedListenEndsTheProcess) {
  const auto open = [] {
    Hooked listen(Hooks().listen, FailWith{EADDRINUSE});
    OpenListener();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.lstn.lstn: TableServer: listen error 98: Address already in use\n"));
}

TEST(ServerSockets, FailedDiscoverySocketEndsTheProcess) {
  const auto open = [] {
    Hooked socket(Hooks().socket, FailWith{ENFILE});
    OpenDiscoverySocket();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.sock: TableServer: discover socket error 23: Too many open files in system\n"));
}

TEST(ServerSockets, FailedBroadcastOptionEndsTheProcess) {
  const auto open = [] {
    Hooked setsockopt(Hooks().setsockopt, [](int, int, int option, const void*, socklen_t) {
      return option == SO_BROADCAST ? FailWith{ENOPROTOOPT}() : 0;
    });
    OpenDiscoverySocket();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.opt.bcast: TableServer: setsockopt broadcast error 92: Protocol not available\n"));
}

TEST(ServerSockets, FailedReuseOptionEndsTheProcess) {
  const auto open = [] {
    Hooked setsockopt(Hooks().setsockopt, [](int, int, int option, const void*, socklen_t) {
      return option == SO_REUSEADDR ? FailWith{ENOPROTOOPT}() : 0;
    });
    OpenDiscoverySocket();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.opt.reuse: TableServer: setsockopt reuseaddr error 92: Protocol not available\n"));
}

TEST(ServerSockets, FailedBindOfTheDiscoverySocketEndsTheProcess) {
  const auto open = [] {
    Hooked bind(Hooks().bind, FailWith{EACCES});
    OpenDiscoverySocket();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.bind: TableServer: discover bind error 13: Permission denied\n"));
}

TEST(ServerSockets, FailedDonePipeEndsTheProcess) {
  const auto open = [] {
    Hooked pipe2(Hooks().pipe2, FailWith{EMFILE});
    OpenDonePipe();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.pipe.done: TableServer: done pipe error 24: Too many open files\n"));
}

TEST(ServerSockets, LogHookMayForkToStartAProgramWhenAPipeFails) {
  const auto open = [] {
    SetLogHook([](auto...) {
      alarm(60);  // Only bounds a failing run.
      const pid_t child = fork();
      if (child == 0) {
        execl("/bin/true", "true", nullptr);
        _exit(1);
      }
      int status = -1;
      waitpid(child, &status, 0);
      std::fprintf(stderr, "the program ended: %d\n", status);
    });
    Hooked pipe2(Hooks().pipe2, FailWith{EMFILE});
    OpenDonePipe();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT), Says("the program ended: 0\n"));
}

TEST(ServerSockets, FailedWakePipeEndsTheProcess) {
  const auto open = [] {
    Hooked pipe2(Hooks().pipe2, FailWith{EMFILE});
    OpenWakePipe();
  };

  EXPECT_EXIT(open(), KilledBySignal(SIGABRT),
              Says("tblsvr.pipe.wake: TableServer: wake pipe error 24: Too many open files\n"));
}

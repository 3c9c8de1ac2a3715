// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "threads/FileDescriptor.h"

// The descriptors of the network. Each is closed on exec from the moment it is made: another program that this one
// starts would hold a connection open whose owner is gone. When a system call fails while those of a table server are
// made, that is logged with errno and ends the process.

constexpr unsigned short kDiscoveryPort = 1975;

struct Pipe {
  FileDescriptor read_end;
  FileDescriptor write_end;
};

// A TCP socket that listens on every address, on a port of the system's choice, which `port` gets in host byte order.
FileDescriptor OpenListeningSocket(unsigned short& port);

// A UDP socket that may broadcast and shares the discovery port with every other server on this machine.
FileDescriptor OpenDiscoverySocket();

// Every wait of a server watches this pipe, but that of a sender for rows. What is written to it is never read, so it
// stays readable.
Pipe OpenDonePipe();

// What tells the discovery thread that the network has changed.
Pipe OpenWakePipe();

// An IPv4 socket of this type; none, with errno, on failure.
FileDescriptor OpenSocket(int type);

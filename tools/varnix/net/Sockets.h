// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>

#include "net/FileDescriptor.h"
#include "net/Place.h"

// All sockets are non-blocking and closed on exec. What fails, fails with a std::system_error, except where an error
// number is the result.

constexpr std::uint16_t kDiscoveryPort = 1975;

// A socket to send broadcasts from; bound to nothing.
FileDescriptor OpenBroadcastSocket();

// Shares the port of announcements with the members of this device: 0 or an error number.
int BindToDiscoveryPort(const FileDescriptor& socket);

// A listening socket on a port of the system's choice, which `port` gets.
FileDescriptor Listen(std::uint16_t& port);

// One at that place; port 0 leaves the choice to the system.
FileDescriptor ListenAt(const Place& place, std::uint16_t& port);

// Begins to connect. FinishConnecting() tells, once the socket is writable, what has come of it: 0 or an error number.
FileDescriptor BeginConnecting(const Place& place, int& error);
int FinishConnecting(const FileDescriptor& socket);

// Has the kernel notice within some 4 seconds that the peer is gone without a word.
void KeepAlive(const FileDescriptor& socket);

// The same while something that we have sent is on its way, when the kernel does not ask. Not for peers that may be
// slow to read.
void LimitSilence(const FileDescriptor& socket);

// Has the kernel send small segments without waiting for acknowledgements of earlier ones.
void SendAtOnce(const FileDescriptor& socket);

// Has the kernel keep about so many bytes of what is not yet taken, and no more.
void LimitSendBuffer(const FileDescriptor& socket, int size_bytes);

// Whether the address is one of this device's own.
bool IsOwnAddress(std::uint32_t address);

// Lets this process have as many descriptors as it may, because every member takes two.
void RaiseDescriptorLimit();

// How many it may have at the moment.
std::size_t MostDescriptors();

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Route.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>

#include "net/FileDescriptor.h"
#include "net/Place.h"
#include "net/Sockets.h"

namespace {

// Sends nothing: it only binds the socket to the route. 0 or an error number.
int Connect(const FileDescriptor& socket, std::uint32_t address) {
  const sockaddr_in place = ToSocketAddress({address, kDiscoveryPort});
  return connect(socket.Get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0 ? 0 : errno;
}

std::uint32_t SourceOf(const FileDescriptor& socket) {
  sockaddr_in here{};
  socklen_t size = sizeof here;
  getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&here), &size);
  return ToPlace(here).address;
}

std::string InterfaceOf(std::uint32_t address) {
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return "";
  std::string name;
  for (const ifaddrs* entry = interfaces; entry != nullptr && name.empty(); entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if (ToPlace(*reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)).address == address) name = entry->ifa_name;
  }
  freeifaddrs(interfaces);
  return name;
}

// Without the permission to send to everybody, the kernel refuses broadcast addresses, and those alone.
bool IsBroadcast(std::uint32_t address) {
  const FileDescriptor modest(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return Connect(modest, address) == EACCES;
}

}  // namespace

Route FindRoute(std::uint32_t address) {
  Route route;
  const FileDescriptor socket = OpenBroadcastSocket();
  route.error = Connect(socket, address);
  if (route.error != 0) return route;
  route.to_everybody = IsBroadcast(address);
  route.source = SourceOf(socket);
  route.interface_name = InterfaceOf(route.source);
  return route;
}

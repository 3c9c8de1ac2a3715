#include "network/PeerPlace.h"

#include <arpa/inet.h>

sockaddr_in ToSocketAddress(const PeerPlace& place) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(place.port);
  address.sin_addr.s_addr = htonl(place.address);
  return address;
}

PeerPlace ToPeerPlace(const sockaddr_in& address) { return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)}; }

std::string ToText(const PeerPlace& place) {
  char address[INET_ADDRSTRLEN] = "";
  const in_addr in_network_order = ToSocketAddress(place).sin_addr;
  inet_ntop(AF_INET, &in_network_order, address, sizeof address);
  return address + (":" + std::to_string(place.port));
}

std::string ToPortBytes(unsigned short port) { return {static_cast<char>(port >> 8), static_cast<char>(port & 0xFF)}; }

unsigned short ToPort(const char* bytes) {
  return static_cast<unsigned short>(static_cast<unsigned char>(bytes[0]) << 8 | static_cast<unsigned char>(bytes[1]));
}

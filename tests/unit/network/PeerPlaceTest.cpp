// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "network/PeerPlace.h"

TEST(PeerPlace, IsInHostByteOrderAndItsSocketAddressInNetworkOrder) {
  const sockaddr_in address = ToSocketAddress({0x7F010203, 0x1234});

  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(address.sin_addr.s_addr, inet_addr("127.1.2.3"));
  EXPECT_EQ(address.sin_port, htons(0x1234));
  EXPECT_EQ(ToPeerPlace(address), (PeerPlace{0x7F010203, 0x1234}));
}

TEST(PeerPlace, DiffersByItsAddressAndByItsPort) {
  const PeerPlace place = {1, 2};

  EXPECT_EQ(place, (PeerPlace{1, 2}));
  EXPECT_NE(place, (PeerPlace{1, 3}));
  EXPECT_NE(place, (PeerPlace{2, 2}));
}

TEST(PeerPlace, PortIsTwoBytesOnTheWireTheHighOneFirst) {
  EXPECT_EQ(ToPortBytes(0xFEDC), "\xFE\xDC");
  EXPECT_EQ(ToPort("\xFE\xDC"), 0xFEDC);
  EXPECT_EQ(ToPort("\x12\x34"), 0x1234);
}

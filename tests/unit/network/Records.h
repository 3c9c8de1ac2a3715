// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "support/Bytes.h"

// What a member sends first, as it is on the wire: a record of database and uid. We are "dev", "proc" in "db".
inline const std::string kRecordOfUs = Bytes(
    "\x00\x20\x00\x08"
    "db"
    "\x03"
    "devproc");
// And a peer is "peer", "proc".
inline const std::string kRecordOfPeer = Bytes(
    "\x00\x20\x00\x09"
    "db"
    "\x04peerproc");

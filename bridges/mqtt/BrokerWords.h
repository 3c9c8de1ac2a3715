// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// What the numbers of libmosquitto and of MQTT 5 mean to who reads the log.

// Why a call of libmosquitto failed; `error` is errno right after the call, or 0 where that tells nothing; `detail` is
// what libmosquitto logged before.
std::string WordsForCall(int result, int error, const std::string& detail);
// Whether the reason is one of those for which a broker refuses.
bool IsRefusal(int reason);
// Why a broker does not accept a connection.
std::string WordsForRefusedConnection(int reason);
// Why a broker has refused a subscription or a row, or has ended a connection.
std::string WordsForReason(int reason);

// Whether a broker that ends a connection for this reason may do so because of a message that it got.
bool MayBeForAMessage(int reason);
// Whether a row that was refused for this reason may be taken later, unchanged.
bool MayPass(int reason);
// Whether a row that was refused for this reason was refused for itself: not for what may pass, or for want of rights.
bool IsForTheRow(int reason);

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/StopExceptions.h"

const char* SelfConnect::what() const noexcept { return "TableServer shutdown due to self-connect"; }

const char* WrongServer::what() const noexcept {
  return "TableServer shutdown because connected to unexpected table server";
}

const char* AbortRequested::what() const noexcept { return "TableServer shutdown because abort requested"; }

const char* AlreadyConnected::what() const noexcept {
  return "TableServer shutdown because existing connection detected";
}

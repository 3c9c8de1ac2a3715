// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "MosquittoCalls.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace {

MosquittoCalls* driven = nullptr;

int End(const MosquittoCalls::Outcome& outcome) {
  errno = outcome.error;
  return outcome.result;
}

}  // namespace

MosquittoCalls::MosquittoCalls() {
  std::array<int, 2> sides{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sides.data()) == 0) {
    descriptor = sides[0];
    other_side_ = sides[1];
  }
  driven = this;
}

MosquittoCalls::~MosquittoCalls() {
  driven = nullptr;
  close(descriptor);
  close(other_side_);
}

void MosquittoCalls::HangUp() const { shutdown(other_side_, SHUT_RDWR); }

// The linker puts these in the place of the calls; see --wrap.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names.
int __wrap_mosquitto_connect_bind_v5(mosquitto*, const char*, int, int, const char*, const mosquitto_property*) {
  return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_socket(mosquitto*) { return driven->descriptor; }

void __wrap_mosquitto_disconnect_v5_callback_set(mosquitto*, decltype(MosquittoCalls::on_disconnect) callback) {
  driven->on_disconnect = callback;
}

int __wrap_mosquitto_loop_read(mosquitto* client, int) {
  try {
    const int reason = driven->disconnect_reason;
    if (reason != 0) driven->on_disconnect(client, mosquitto_userdata(client), reason, nullptr);
  } catch (...) {
    driven->disconnect_has_thrown = true;
  }
  return End(driven->read);
}

int __wrap_mosquitto_loop_misc(mosquitto*) { return End(driven->misc); }

int __wrap_getsockopt(int, int, int, void* value, socklen_t*) {  // Nobody here asks for another option.
  *static_cast<int*>(value) = driven->pending_error;
  return 0;
}

int __wrap_mosquitto_publish_v5(mosquitto*, int* message, const char* topic, int size, const void* payload, int, bool,
                                const mosquitto_property*) {
  if (driven->publish.result != MOSQ_ERR_SUCCESS) return End(driven->publish);
  *message = static_cast<int>(driven->published.size()) + 1;
  driven->published.push_back({*message, topic, {static_cast<const char*>(payload), static_cast<std::size_t>(size)}});
  return MOSQ_ERR_SUCCESS;
}
// NOLINTEND(bugprone-reserved-identifier)
}

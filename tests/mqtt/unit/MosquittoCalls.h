// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <mosquitto.h>

#include <string>
#include <vector>

// The calls of libmosquitto that reach the network, and the error of the connection's descriptor. While one of these
// lives, the test drives them: connections are made at once, what is published is kept here, and calls fail as they are
// told to. One at a time.
class MosquittoCalls {
 public:
  struct Outcome {
    int result = MOSQ_ERR_SUCCESS;
    int error = 0;  // errno, after the call.
  };
  struct Message {
    int number;
    std::string topic;
    std::string payload;
  };

  MosquittoCalls();
  ~MosquittoCalls();
  MosquittoCalls(const MosquittoCalls&) = delete;
  MosquittoCalls& operator=(const MosquittoCalls&) = delete;

  Outcome read;
  Outcome misc;
  Outcome publish;
  int disconnect_reason = 0;           // Of the broker; it is told when something is read. 0: none.
  bool disconnect_has_thrown = false;  // Into libmosquitto.
  void (*on_disconnect)(mosquitto*, void*, int, const mosquitto_property*) = nullptr;
  int pending_error = 0;  // Of the connection, as SO_ERROR has it.
  std::vector<Message> published;
  int descriptor = -1;  // What the connection is said to have.

  // The other side ends the connection.
  void HangUp() const;

 private:
  int other_side_ = -1;
};

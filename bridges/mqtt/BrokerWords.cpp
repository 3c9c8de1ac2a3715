// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "BrokerWords.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netdb.h>

#include <cerrno>
#include <system_error>

namespace {

std::string WithDetail(const std::string& words, const std::string& detail) {
  return detail.empty() ? words : words + " (" + detail + ")";
}

std::string WithoutFullStop(std::string words) {
  if (!words.empty() && words.back() == '.') words.pop_back();
  return words;
}

std::string WordsForSystemCall(int error) {
  if (error == EINTR) return "it did not answer in time";
  if (error == ETIMEDOUT) return "it does not answer";
  if (error == 0) return "the connection has failed";
  return std::generic_category().message(error);
}

}  // namespace

std::string WordsForCall(int result, int error, const std::string& detail) {
  switch (result) {
    case MOSQ_ERR_ERRNO:
      return WordsForSystemCall(error);
    case MOSQ_ERR_EAI:
      return "the name of its host is not known";
    case MOSQ_ERR_CONN_LOST:
      return "it has ended the connection";
    case MOSQ_ERR_KEEPALIVE:
      return "it does not answer";
    case MOSQ_ERR_TLS:
    case MOSQ_ERR_TLS_HANDSHAKE:
      return WithDetail("TLS with it fails", detail);
    case MOSQ_ERR_PROTOCOL:
    case MOSQ_ERR_MALFORMED_PACKET:
      return "what it sends is no MQTT 5";
    case MOSQ_ERR_OVERSIZE_PACKET:
      return "it is larger than the broker takes";
    default:
      return WithDetail(WithoutFullStop(mosquitto_strerror(result)), detail);
  }
}

bool IsRefusal(int reason) { return reason >= MQTT_RC_UNSPECIFIED; }

std::string WordsForRefusedConnection(int reason) {
  const bool who = reason == MQTT_RC_BAD_USERNAME_OR_PASSWORD || reason == MQTT_RC_NOT_AUTHORIZED;
  return who ? "it does not let us in: the user or the password is wrong" : WordsForReason(reason);
}

std::string WordsForReason(int reason) {
  switch (reason) {
    case MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION:
      return "it does not speak MQTT 5";
    case MQTT_RC_BAD_USERNAME_OR_PASSWORD:
      return "the user or the password is wrong";
    case MQTT_RC_NOT_AUTHORIZED:
      return "we are not allowed to";
    case MQTT_RC_SERVER_SHUTTING_DOWN:
      return "it is shutting down";
    case MQTT_RC_SESSION_TAKEN_OVER:
      return "another client has connected under our name";
    case MQTT_RC_PACKET_TOO_LARGE:
      return "it is larger than the broker takes";
    case MQTT_RC_RETAIN_NOT_SUPPORTED:
      return "it keeps no retained messages";
    case MQTT_RC_QOS_NOT_SUPPORTED:
      return "it has no QoS 1";
    case MQTT_RC_QUOTA_EXCEEDED:
      return "a quota is exceeded";
    default:
      return mosquitto_reason_string(reason);
  }
}

bool MayBeForAMessage(int reason) {
  switch (reason) {
    case MQTT_RC_SERVER_BUSY:
    case MQTT_RC_SERVER_SHUTTING_DOWN:
    case MQTT_RC_KEEP_ALIVE_TIMEOUT:
    case MQTT_RC_SESSION_TAKEN_OVER:
    case MQTT_RC_ADMINISTRATIVE_ACTION:
    case MQTT_RC_USE_ANOTHER_SERVER:
    case MQTT_RC_SERVER_MOVED:
    case MQTT_RC_CONNECTION_RATE_EXCEEDED:
    case MQTT_RC_MAXIMUM_CONNECT_TIME:
      return false;
    default:
      return true;
  }
}

bool MayPass(int reason) {
  return reason == MQTT_RC_UNSPECIFIED || reason == MQTT_RC_IMPLEMENTATION_SPECIFIC || reason == MQTT_RC_QUOTA_EXCEEDED;
}

bool IsForTheRow(int reason) { return IsRefusal(reason) && !MayPass(reason) && reason != MQTT_RC_NOT_AUTHORIZED; }

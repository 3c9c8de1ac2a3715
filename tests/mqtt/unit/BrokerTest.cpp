// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <mqtt_protocol.h>

#include <cerrno>
#include <optional>
#include <string>

#include "Broker.h"
#include "DrivenBroker.h"
#include "support/FailingAllocations.h"

namespace {

using ::testing::StartsWith;

// How a connection ends when errno was this before.
BrokerEnd EndAfter(int error_before, DrivenBroker& driven) {
  EXPECT_TRUE(driven.broker.Connect(std::nullopt));
  errno = error_before;
  driven.broker.Serve(true);
  EXPECT_FALSE(driven.broker.HasConnection());
  return driven.broker.End();
}

TEST(Broker, TakesTheErrorOfACallFromAfterTheCall) {
  DrivenBroker driven;
  driven.calls.read = {MOSQ_ERR_ERRNO, EPIPE};
  const BrokerEnd end = EndAfter(EAGAIN, driven);
  EXPECT_EQ(end.cause, BrokerEnd::Cause::kCutOff);
  EXPECT_THAT(end.words, StartsWith("Broken pipe"));
}

TEST(Broker, IsGoneWhenNothingThatWasSentIsAcknowledged) {
  DrivenBroker driven;
  driven.calls.read = {MOSQ_ERR_ERRNO, ETIMEDOUT};
  const BrokerEnd end = EndAfter(EAGAIN, driven);
  EXPECT_EQ(end.cause, BrokerEnd::Cause::kNetwork);
  EXPECT_EQ(end.words, "it does not answer");
}

// libmosquitto tells of the end of a stream of TLS with the errno of something else.
TEST(Broker, IsJudgedWithTlsByWhatTheDescriptorTells) {
  DrivenBroker driven;
  driven.options.ca = VARNIX_BRIDGE;  // A folder, as it happens.
  driven.calls.read = {MOSQ_ERR_ERRNO, EPIPE};
  EXPECT_EQ(EndAfter(0, driven).words, "the connection has failed");
  EXPECT_EQ(driven.broker.End().cause, BrokerEnd::Cause::kNetwork);

  driven.calls.pending_error = EHOSTUNREACH;
  EXPECT_THAT(EndAfter(0, driven).words, StartsWith("No route to host"));
  EXPECT_EQ(driven.broker.End().cause, BrokerEnd::Cause::kNetwork);

  driven.calls.pending_error = ECONNRESET;
  EXPECT_THAT(EndAfter(0, driven).words, StartsWith("it has ended the connection"));
  EXPECT_EQ(driven.broker.End().cause, BrokerEnd::Cause::kCutOff);
}

TEST(Broker, IsJudgedWithTlsByTheDescriptorAlsoWhenARowCannotBeSent) {
  DrivenBroker driven;
  driven.options.ca = VARNIX_BRIDGE;
  driven.calls.publish = {MOSQ_ERR_ERRNO, EPROTO};
  for (const auto cause : {BrokerEnd::Cause::kNetwork, BrokerEnd::Cause::kCutOff}) {
    ASSERT_TRUE(driven.broker.Connect(std::nullopt));
    if (cause == BrokerEnd::Cause::kCutOff) driven.calls.HangUp();
    int message = 0;
    std::string why;
    EXPECT_EQ(driven.broker.Publish("topic", "1", message, why), Broker::Outcome::kConnectionEnded);
    EXPECT_EQ(driven.broker.End().cause, cause);
  }
}

TEST(Broker, IsGoneWhenNoPingIsAnswered) {
  DrivenBroker driven;
  driven.calls.misc = {MOSQ_ERR_KEEPALIVE, 0};
  const BrokerEnd end = EndAfter(0, driven);
  EXPECT_EQ(end.cause, BrokerEnd::Cause::kNetwork);
  EXPECT_EQ(end.words, "it does not answer");
}

TEST(Broker, LetsNoWantOfMemoryPassThroughLibmosquitto) {
  DrivenBroker driven;
  ASSERT_TRUE(driven.broker.Connect(std::nullopt));
  driven.calls.disconnect_reason = MQTT_RC_SESSION_TAKEN_OVER;
  bool has_thrown = false;
  try {
    const FailingAllocation failing(1);
    driven.broker.Serve(true);
  } catch (const std::bad_alloc&) {
    has_thrown = true;
  }
  EXPECT_FALSE(driven.calls.disconnect_has_thrown);
  EXPECT_TRUE(has_thrown);

  driven.broker.Serve(true);
  EXPECT_EQ(driven.broker.End().cause, BrokerEnd::Cause::kTakenOver);
}

TEST(Broker, IsTriedAgainWhenTheFilesForTlsAreNotThere) {
  DrivenBroker driven;
  driven.options.ca = "/nowhere/ca.pem";
  EXPECT_FALSE(driven.broker.Connect(std::nullopt));
  EXPECT_FALSE(driven.broker.HasConnection());
  EXPECT_EQ(driven.broker.End().words, "the files for TLS cannot be used");
  driven.options.ca.clear();
  EXPECT_TRUE(driven.broker.Connect(std::nullopt));
}

}  // namespace

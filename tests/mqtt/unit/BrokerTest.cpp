// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>

#include <cerrno>
#include <optional>

#include "Broker.h"
#include "DrivenBroker.h"

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
  EXPECT_EQ(end.cause, BrokerEnd::Cause::CutOff);
  EXPECT_THAT(end.words, StartsWith("Broken pipe"));
}

TEST(Broker, IsGoneWhenNothingThatWasSentIsAcknowledged) {
  DrivenBroker driven;
  driven.calls.read = {MOSQ_ERR_ERRNO, ETIMEDOUT};
  const BrokerEnd end = EndAfter(EAGAIN, driven);
  EXPECT_EQ(end.cause, BrokerEnd::Cause::Network);
  EXPECT_EQ(end.words, "it does not answer");
}

TEST(Broker, IsGoneWhenNoPingIsAnswered) {
  DrivenBroker driven;
  driven.calls.misc = {MOSQ_ERR_KEEPALIVE, 0};
  const BrokerEnd end = EndAfter(0, driven);
  EXPECT_EQ(end.cause, BrokerEnd::Cause::Network);
  EXPECT_EQ(end.words, "it does not answer");
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

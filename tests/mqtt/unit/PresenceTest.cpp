// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DrivenBroker.h"
#include "Presence.h"

namespace {

// The state of a site as a bridge sees it at each of its connections.
bool SeesAnother(const std::vector<std::string>& instances) {
  const Topics topics("varnix");
  Presence presence(topics, "hall1");
  DrivenBroker driven;
  std::string own;
  for (const std::string& instance : instances) {
    const Broker::State will = presence.NextWill();
    driven.broker.Connect(will);
    presence.Announce(driven.broker);
    presence.Saw(instance == "own" ? own : instance);
    own = will.instance;
  }
  return presence.HasSeenAnother();
}

TEST(Presence, KnowsASecondBridgeByADifferentStateAtEachConnection) {
  EXPECT_TRUE(SeesAnother({"", "second-1", "second-2"}));
  EXPECT_TRUE(SeesAnother({"before-7", "own", "second-1", "second-2"}));
}

TEST(Presence, TakesAStateThatABrokerHasHadOnItsDiskForThatOfNobody) {
  EXPECT_FALSE(SeesAnother({"before-7"}));
  EXPECT_FALSE(SeesAnother({"before-7", "before-6"}));
  EXPECT_FALSE(SeesAnother({"", "before-6", "before-6", "own", "before-5"}));
}

TEST(Presence, KnowsItsOwnState) { EXPECT_FALSE(SeesAnother({"", "own", "own", "", "own"})); }

TEST(Presence, HasAWillForEachConnectionAndAStateThatTellsWhose) {
  const Topics topics("varnix");
  Presence presence(topics, "hall1");
  const Broker::State first = presence.NextWill(), second = presence.NextWill();
  EXPECT_EQ(first.topic, "varnix/hall1/$state");
  EXPECT_EQ(first.payload, "0");
  EXPECT_NE(first.instance, second.instance);
}

}  // namespace

// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "DrivenBroker.h"
#include "OwnDatabase.h"
#include "Publisher.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// The publisher of one database, which no other test has, and a broker that takes everything and acknowledges what the
// test has it acknowledge.
class PublisherTest : public ::testing::Test {
 protected:
  PublisherTest() { Connect(); }

  void Connect() {
    ASSERT_TRUE(driven_.broker.Connect(std::nullopt));
    driven_.calls.published.clear();
    publisher_.Begin();
  }
  // Whether there is hope for the next connection.
  bool CutOff() { return publisher_.ConnectionHasEnded({BrokerEnd::Cause::CutOff, "it has ended the connection"}); }
  bool LoseNetwork() { return publisher_.ConnectionHasEnded({BrokerEnd::Cause::Network, "it does not answer"}); }

  void Set(const std::string& key, const std::string& value) const { table_->Set({key, value}); }
  // Sends what there is when a change has been told.
  void SendChange() {
    pollfd change{publisher_.Descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&change, 1, 60'000), 1);
    publisher_.SendWhatIsDue();
  }
  void Acknowledge(int message) { publisher_.Acknowledged(message, 0); }

  // One that was underway when the broker cut a connection off, and that it refuses in the next.
  void ConvictARow() {
    Set("suspect", "1");
    publisher_.SendWhatIsDue();
    EXPECT_FALSE(CutOff());
    Connect();
    publisher_.SendWhatIsDue();
    publisher_.Acknowledged(1, MQTT_RC_PACKET_TOO_LARGE);
  }

  // The keys of all that the connection has published.
  std::vector<std::string> Published() const {
    std::vector<std::string> keys;
    for (const MosquittoCalls::Message& message : driven_.calls.published) {
      keys.push_back(message.topic.substr(message.topic.rfind('/') + 1));
    }
    return keys;
  }
  int CountOf(const std::string& key) const {
    const std::vector<std::string> keys = Published();
    return static_cast<int>(std::count(keys.begin(), keys.end(), key));
  }

  DrivenBroker driven_;
  const Options options_ = OptionsOfOwnDatabase();
  const Topics topics_{"varnix"};
  Publisher publisher_{options_, topics_, driven_.broker, driven_.log};
  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeSharedTable(options_.databases.front(), "t");
};

TEST_F(PublisherTest, TellsThatAllIsPublishedThoughMoreIsUnderway) {
  CaptureStderr();
  Set("first", "1");
  publisher_.SendWhatIsDue();
  Set("second", "2");
  SendChange();
  ASSERT_THAT(Published(), ElementsAre("first", "second"));
  EXPECT_THAT(GetCapturedStderr(), Not(HasSubstr("All rows are published")));

  CaptureStderr();
  Acknowledge(1);
  publisher_.SendWhatIsDue();
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("All rows are published"));
}

TEST_F(PublisherTest, RepeatsEmptyValuesThoughSomethingIsAlwaysUnderway) {
  Set("empty", "");
  Set("underway", "1");
  publisher_.SendWhatIsDue();
  ASSERT_THAT(Published(), ElementsAre("empty", "underway"));
  Acknowledge(1);
  publisher_.Beat();
  publisher_.SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("empty", "underway", "empty"));
}

TEST_F(PublisherTest, RepeatsEmptyValuesThoughRowsWaitForRoom) {
  Set("empty", "");
  publisher_.SendWhatIsDue();
  for (int i = 0; i < 1000; ++i) Set(std::to_string(i), "waits");
  SendChange();
  publisher_.Beat();
  for (int message = 1; message <= 10; ++message) {
    Acknowledge(message);
    publisher_.SendWhatIsDue();
  }
  EXPECT_EQ(CountOf("empty"), 2);
  EXPECT_EQ(Published().size(), 64U + 10U);  // The others go on meanwhile.
}

TEST_F(PublisherTest, DoesNotBeginAWalkAnewBeforeItHasEnded) {
  for (int i = 0; i < 200; ++i) Set(std::to_string(i), "");
  publisher_.SendWhatIsDue();
  for (int message = 1; message <= 600; ++message) {
    if (message % 50 == 0) publisher_.Beat();
    Acknowledge(message);
    publisher_.SendWhatIsDue();
  }
  EXPECT_GE(CountOf("199"), 2);
}

TEST_F(PublisherTest, StillSuspectsARowThatCouldNotBeSentAlone) {
  Set("suspect", "1");
  publisher_.SendWhatIsDue();
  CutOff();
  Set("other", "1");
  Connect();
  driven_.calls.publish = {MOSQ_ERR_CONN_LOST, 0};
  publisher_.SendWhatIsDue();
  CutOff();
  driven_.calls.publish = {};
  Connect();
  publisher_.SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("suspect"));
}

TEST_F(PublisherTest, LeavesOutNoSuspectThatIsRefusedForWhatMayPassOrForWantOfRights) {
  for (const int reason : {MQTT_RC_QUOTA_EXCEEDED, MQTT_RC_UNSPECIFIED, MQTT_RC_NOT_AUTHORIZED}) {
    Set("suspect", std::to_string(reason));
    publisher_.SendWhatIsDue();
    CutOff();
    Connect();
    publisher_.SendWhatIsDue();
    ASSERT_THAT(Published(), ElementsAre("suspect"));
    publisher_.Acknowledged(1, reason);
    publisher_.SendWhatIsDue();
    EXPECT_THAT(Published(), ElementsAre("suspect", "suspect")) << reason;
  }
}

TEST_F(PublisherTest, PublishesAnewForAQuotaOnceEveryRowHasLeft) {
  const Publisher::Clock::time_point later = Publisher::Clock::now() + std::chrono::hours(1);
  for (int i = 0; i < 200; ++i) Set(std::to_string(i), "1");
  publisher_.SendWhatIsDue();
  publisher_.Acknowledged(1, MQTT_RC_QUOTA_EXCEEDED);
  int message = 1;
  while (Published().size() < 200) {
    publisher_.Tick(later);
    publisher_.SendWhatIsDue();
    Acknowledge(++message);
  }
  EXPECT_EQ(CountOf("0"), 1);
  EXPECT_EQ(CountOf("199"), 1);
  publisher_.SendWhatIsDue();
  publisher_.Tick(later);
  publisher_.SendWhatIsDue();
  EXPECT_EQ(CountOf("0"), 2);
}

TEST_F(PublisherTest, LeavesOutASuspectThatIsRefusedForItself) {
  ConvictARow();
  publisher_.SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("suspect"));
}

// A broker may end the connection for a row that it has refused before. What we have sent meanwhile varies.
TEST_F(PublisherTest, LeavesOutARowThatIsRefusedForWhatMayPassWhenCutOffsFollow) {
  publisher_.SendWhatIsDue();
  for (const int reason : {MQTT_RC_QUOTA_EXCEEDED, MQTT_RC_UNSPECIFIED, MQTT_RC_NOT_AUTHORIZED}) {
    for (const bool sends_more : {false, true}) {
      const std::string poison = "poison" + std::to_string(reason) + (sends_more ? "more" : "");
      Set(poison, "1");
      SendChange();
      ASSERT_EQ(Published().back(), poison);
      for (int connection = 1; connection <= 4; ++connection) {
        publisher_.Acknowledged(static_cast<int>(Published().size()), reason);
        if (sends_more) publisher_.SendWhatIsDue();
        EXPECT_EQ(CutOff(), connection == 4) << poison;
        Connect();
        publisher_.SendWhatIsDue();
        ASSERT_EQ(CountOf(poison), connection < 4 ? 1 : 0) << poison;
      }
    }
  }
}

TEST_F(PublisherTest, LetsNoRowWaitBehindOneThatIsRefusedAndCutsOff) {
  Set("poison", "1");
  for (int i = 0; i < 200; ++i) Set(std::to_string(i), "1");
  std::set<std::string> taken;
  for (int connection = 0; connection < 10; ++connection) {
    std::size_t message = 0;
    for (bool has_refused = false; !has_refused;) {
      publisher_.SendWhatIsDue();
      if (message == driven_.calls.published.size()) break;  // All that there is.
      const std::string key = Published()[message++];
      has_refused = key == "poison";
      publisher_.Acknowledged(static_cast<int>(message), has_refused ? MQTT_RC_NOT_AUTHORIZED : 0);
      if (!has_refused) taken.insert(key);
    }
    publisher_.SendWhatIsDue();  // Before the end is noticed.
    CutOff();
    Connect();
  }
  EXPECT_EQ(taken.size(), 200U);
}

TEST_F(PublisherTest, HopesWhenItHasConvictedARowInTheConnectionThatWasCutOff) {
  ConvictARow();
  EXPECT_TRUE(CutOff());
  Connect();
  EXPECT_FALSE(CutOff());
}

TEST_F(PublisherTest, DoesNotHopeForWhatItConvictedBeforeTheNetworkFailed) {
  ConvictARow();
  EXPECT_FALSE(LoseNetwork());
  Connect();
  EXPECT_FALSE(CutOff());
}

TEST_F(PublisherTest, SuspectsNoRowThatHasNeverLeft) {
  driven_.calls.publish = {MOSQ_ERR_OVERSIZE_PACKET, 0};
  Set("large", "1");
  publisher_.SendWhatIsDue();
  CutOff();
  driven_.calls.publish = {};
  Set("other", "1");
  Connect();
  publisher_.SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("large", "other"));
}

TEST_F(PublisherTest, LeavesOutNoSuspectThatHasBecomeTooLarge) {
  Set("suspect", "1");
  publisher_.SendWhatIsDue();
  CutOff();
  driven_.calls.publish = {MOSQ_ERR_OVERSIZE_PACKET, 0};
  Connect();
  publisher_.SendWhatIsDue();
  driven_.calls.publish = {};
  Set("suspect", "small again");
  SendChange();
  EXPECT_THAT(Published(), ElementsAre("suspect"));
}

}  // namespace

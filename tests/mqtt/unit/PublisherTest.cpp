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
  bool CutOff() { return End({BrokerEnd::Cause::kCutOff, "it has ended the connection"}); }
  bool LoseNetwork() { return End({BrokerEnd::Cause::kNetwork, "it does not answer"}); }
  bool End(const BrokerEnd& end) { return publisher_.ConnectionHasEnded(end, now_); }

  void Set(const std::string& key, const std::string& value) const { table_->Set({key, value}); }
  void SendWhatIsDue() { publisher_.SendWhatIsDue(now_); }
  // Sends what there is when a change has been told.
  void SendChange() {
    pollfd change{publisher_.Descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&change, 1, 60'000), 1);
    SendWhatIsDue();
  }
  void Acknowledge(int message, int reason = 0) { publisher_.Acknowledged(message, reason, now_); }

  // One that was underway when the broker cut a connection off, and that it refuses in the next.
  void ConvictARow() {
    Set("suspect", "1");
    SendWhatIsDue();
    EXPECT_FALSE(CutOff());
    Connect();
    SendWhatIsDue();
    Acknowledge(1, MQTT_RC_PACKET_TOO_LARGE);
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
  Publisher::Clock::time_point now_ = Publisher::Clock::now();  // Goes on as the test has it.
  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeSharedTable(options_.databases.front(), "t");
};

TEST_F(PublisherTest, TellsThatAllIsPublishedThoughMoreIsUnderway) {
  CaptureStderr();
  Set("first", "1");
  SendWhatIsDue();
  Set("second", "2");
  SendChange();
  ASSERT_THAT(Published(), ElementsAre("first", "second"));
  EXPECT_THAT(GetCapturedStderr(), Not(HasSubstr("All rows are published")));

  CaptureStderr();
  Acknowledge(1);
  SendWhatIsDue();
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("All rows are published"));
}

TEST_F(PublisherTest, RepeatsEmptyValuesThoughSomethingIsAlwaysUnderway) {
  Set("empty", "");
  Set("underway", "1");
  SendWhatIsDue();
  ASSERT_THAT(Published(), ElementsAre("empty", "underway"));
  Acknowledge(1);
  publisher_.Beat();
  SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("empty", "underway", "empty"));
}

TEST_F(PublisherTest, RepeatsEmptyValuesThoughRowsWaitForRoom) {
  Set("empty", "");
  SendWhatIsDue();
  for (int i = 0; i < 1000; ++i) Set(std::to_string(i), "waits");
  SendChange();
  publisher_.Beat();
  for (int message = 1; message <= 10; ++message) {
    Acknowledge(message);
    SendWhatIsDue();
  }
  EXPECT_EQ(CountOf("empty"), 2);
  EXPECT_EQ(Published().size(), 64U + 10U);  // The others go on meanwhile.
}

TEST_F(PublisherTest, DoesNotBeginAWalkAnewBeforeItHasEnded) {
  for (int i = 0; i < 200; ++i) Set(std::to_string(i), "");
  SendWhatIsDue();
  for (int message = 1; message <= 600; ++message) {
    if (message % 50 == 0) publisher_.Beat();
    Acknowledge(message);
    SendWhatIsDue();
  }
  EXPECT_GE(CountOf("199"), 2);
}

TEST_F(PublisherTest, StillSuspectsARowThatCouldNotBeSentAlone) {
  Set("suspect", "1");
  SendWhatIsDue();
  CutOff();
  Set("other", "1");
  Connect();
  driven_.calls.publish = {MOSQ_ERR_CONN_LOST, 0};
  SendWhatIsDue();
  CutOff();
  driven_.calls.publish = {};
  Connect();
  SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("suspect"));
}

TEST_F(PublisherTest, LeavesOutNoSuspectThatIsRefusedForWhatMayPassOrForWantOfRights) {
  for (const int reason : {MQTT_RC_QUOTA_EXCEEDED, MQTT_RC_UNSPECIFIED, MQTT_RC_NOT_AUTHORIZED}) {
    Set("suspect", std::to_string(reason));
    SendWhatIsDue();
    CutOff();
    Connect();
    SendWhatIsDue();
    ASSERT_THAT(Published(), ElementsAre("suspect"));
    Acknowledge(1, reason);
    SendWhatIsDue();
    EXPECT_THAT(Published(), ElementsAre("suspect", "suspect")) << reason;
  }
}

TEST_F(PublisherTest, PublishesAnewForAQuotaOnceEveryRowHasLeft) {
  for (int i = 0; i < 200; ++i) Set(std::to_string(i), "1");
  SendWhatIsDue();
  Acknowledge(1, MQTT_RC_QUOTA_EXCEEDED);
  int message = 1;
  while (Published().size() < 200) {
    now_ += std::chrono::minutes(1);
    publisher_.Tick(now_);
    SendWhatIsDue();
    Acknowledge(++message);
  }
  EXPECT_EQ(CountOf("0"), 1);
  EXPECT_EQ(CountOf("199"), 1);
  SendWhatIsDue();
  publisher_.Tick(now_);
  SendWhatIsDue();
  EXPECT_EQ(CountOf("0"), 2);
}

TEST_F(PublisherTest, LeavesOutASuspectThatIsRefusedForItself) {
  ConvictARow();
  SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("suspect"));
}

// A broker may end the connection for a row that it has refused before. What we have sent meanwhile varies.
TEST_F(PublisherTest, LeavesOutARowThatIsRefusedForWhatMayPassWhenCutOffsFollow) {
  SendWhatIsDue();
  for (const int reason : {MQTT_RC_QUOTA_EXCEEDED, MQTT_RC_UNSPECIFIED, MQTT_RC_NOT_AUTHORIZED}) {
    for (const bool sends_more : {false, true}) {
      const std::string poison = "poison" + std::to_string(reason) + (sends_more ? "more" : "");
      Set(poison, "1");
      SendChange();
      ASSERT_EQ(Published().back(), poison);
      for (int connection = 1; connection <= 4; ++connection) {
        Acknowledge(static_cast<int>(Published().size()), reason);
        if (sends_more) SendWhatIsDue();
        EXPECT_EQ(CutOff(), connection == 4) << poison;
        Connect();
        SendWhatIsDue();
        ASSERT_EQ(CountOf(poison), connection < 4 ? 1 : 0) << poison;
      }
    }
  }
}

// The second answer comes before the cut-off, and so do other rows.
TEST_F(PublisherTest, LeavesOutARowThatIsRefusedWhenTheCutOffTakesItsTime) {
  for (const char* const key : {"first", "poison", "last"}) Set(key, "1");
  bool has_hope = false;
  for (int connection = 1; connection <= 5; ++connection) {
    EXPECT_FALSE(has_hope) << connection;
    SendWhatIsDue();
    for (std::size_t message = 1; message <= driven_.calls.published.size(); ++message) {
      Acknowledge(static_cast<int>(message), Published()[message - 1] == "poison" ? MQTT_RC_NOT_AUTHORIZED : 0);
      SendWhatIsDue();
    }
    EXPECT_GT(CountOf("poison"), 0) << connection;
    now_ += std::chrono::milliseconds(900);
    SendWhatIsDue();
    has_hope = CutOff();
    now_ += std::chrono::seconds(1);
    Connect();
  }
  EXPECT_TRUE(has_hope);
  SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("first", "last"));
}

TEST_F(PublisherTest, LetsNoRowWaitBehindOneThatIsRefusedAndCutsOff) {
  Set("poison", "1");
  for (int i = 0; i < 200; ++i) Set(std::to_string(i), "1");
  std::set<std::string> taken;
  for (int connection = 0; connection < 10; ++connection) {
    std::size_t message = 0;
    for (bool has_refused = false; !has_refused;) {
      SendWhatIsDue();
      if (message == driven_.calls.published.size()) break;  // All that there is.
      const std::string key = Published()[message++];
      has_refused = key == "poison";
      Acknowledge(static_cast<int>(message), has_refused ? MQTT_RC_NOT_AUTHORIZED : 0);
      if (!has_refused) taken.insert(key);
    }
    SendWhatIsDue();  // Before the end is noticed.
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
  SendWhatIsDue();
  CutOff();
  driven_.calls.publish = {};
  Set("other", "1");
  Connect();
  SendWhatIsDue();
  EXPECT_THAT(Published(), ElementsAre("large", "other"));
}

TEST_F(PublisherTest, LeavesOutNoSuspectThatHasBecomeTooLarge) {
  Set("suspect", "1");
  SendWhatIsDue();
  CutOff();
  driven_.calls.publish = {MOSQ_ERR_OVERSIZE_PACKET, 0};
  Connect();
  SendWhatIsDue();
  driven_.calls.publish = {};
  Set("suspect", "small again");
  SendChange();
  EXPECT_THAT(Published(), ElementsAre("suspect"));
}

}  // namespace

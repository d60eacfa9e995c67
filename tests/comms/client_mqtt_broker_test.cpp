// A client against a real broker: the same stories for the asynchronous and the synchronous one.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "comms/client_kind.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/mosquitto.h"

namespace varnel::comms {
namespace {

using test::Eventually;
using test::Mosquitto;

class MqttBrokerTest : public ::testing::Test {
 protected:
  std::shared_ptr<ClientMqttBase> NewClient(const std::string& id, Qos qos = Qos::kAtMostOnce) {
    auto client = test::NewClient(id, qos);
    client->SetConnectionLostCallback([this] { lost_.Put(1); });
    return client;
  }
  MqttConnectSettings Settings(const std::string& id) {
    return {.host = "127.0.0.1", .port = broker_.Port(), .client_id = id, .connect_timeout_s = 3};
  }
  ClientMqttBase::Listener Into(test::Mailbox<std::string>& box) {
    return [&box](const std::shared_ptr<MqttMessage>& message) {
      box.Put(message->topic + "=" + message->payload + (message->retained ? " (kept)" : ""));
    };
  }
  bool ConnectAndWait(ClientMqttBase& client, const std::string& id) {
    (void)client.Connect(Settings(id));
    return Eventually([&] { return client.IsConnected(); });
  }
  /// Publishes until the listener has it: a subscription takes effect when the broker has read it.
  bool Reaches(ClientMqttBase& sender, const std::string& topic, const std::string& payload,
               test::Mailbox<std::string>& box) {
    return Eventually([&] {
      (void)sender.Send(topic, Qos::kAtMostOnce, false, payload);
      const auto items = box.Items();
      return std::find(items.begin(), items.end(), topic + "=" + payload) != items.end();
    });
  }

  test::LogCapture log_;
  Mosquitto broker_;
  test::Mailbox<int> lost_;
  test::Mailbox<std::string> box_;
};

TEST_F(MqttBrokerTest, DeliversByFilterAlsoToListenersAddedLater) {
  const auto client = NewClient("a");
  (void)client->AddListener("early/+", Into(box_));
  ASSERT_TRUE(ConnectAndWait(*client, "a"));
  EXPECT_TRUE(Reaches(*client, "early/x", "1", box_));
  EXPECT_EQ(client->AddListener("late", Into(box_)), CommsStatus::kOk);
  EXPECT_TRUE(Reaches(*client, "late", "2", box_));

  test::Mailbox<std::string> quality;
  EXPECT_EQ(client->AddListener("q1", Into(quality)), CommsStatus::kOk);
  EXPECT_TRUE(Reaches(*client, "q1", "x", quality));
  const std::string bytes("\0\xff\n", 3);
  EXPECT_EQ(client->Send("q1", Qos::kAtLeastOnce, false, bytes), CommsStatus::kOk);
  EXPECT_TRUE(Eventually([&] { return quality.Items().back() == "q1=" + bytes; }));
  EXPECT_EQ(client->Send(std::string(65'536, 't'), Qos::kAtMostOnce, false, "x"),
            CommsStatus::kInvalidArgument);
  EXPECT_TRUE(Reaches(*client, "late", "3", box_));
  client->RemoveListener("late");
  EXPECT_TRUE(Reaches(*client, "early/x", "4", box_)) << "what was on its way has come";
  const size_t dropped = log_.Count("MQTT", "a: no listener for topic: late");
  (void)client->Send("late", Qos::kAtLeastOnce, false, "5");
  EXPECT_TRUE(Reaches(*client, "early/x", "6", box_));
  EXPECT_EQ(log_.Count("MQTT", "a: no listener for topic: late"), dropped);
  client->Disconnect();
  EXPECT_FALSE(client->IsConnected());
  EXPECT_NE(client->Send("q1", Qos::kAtMostOnce, false, "x"), CommsStatus::kOk);
}

TEST_F(MqttBrokerTest, AReplacedListenerGetsNoRetainedMessageAgain) {
  const auto client = NewClient("k");
  ASSERT_TRUE(ConnectAndWait(*client, "k"));
  EXPECT_EQ(client->Send("kept", Qos::kAtLeastOnce, true, "x"), CommsStatus::kOk);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(client->AddListener("kept", Into(box_)), CommsStatus::kOk);
    EXPECT_TRUE(Eventually([&] { return !box_.Items().empty(); }));
  }
  EXPECT_EQ(client->Send("kept", Qos::kAtLeastOnce, false, "last"), CommsStatus::kOk);
  EXPECT_TRUE(Eventually([&] { return box_.Items().back() == "kept=last"; }));
  EXPECT_EQ(box_.Items(), (std::vector<std::string>{"kept=x (kept)", "kept=last"}));
}

TEST_F(MqttBrokerTest, ComesBackAfterTheBrokerDied) {
  const auto client = NewClient("r");
  (void)client->AddListener("t", Into(box_));
  ASSERT_TRUE(ConnectAndWait(*client, "r"));
  for (int round = 0; round < 5; ++round) {
    const size_t lost_before = lost_.Items().size();
    broker_.Stop(round % 2 ? SIGTERM : SIGKILL);
    ASSERT_GT(lost_.WaitFor(lost_before + 1).size(), lost_before);
    EXPECT_FALSE(client->IsConnected());
    (void)client->Reconnect();
    EXPECT_GT(lost_.WaitFor(lost_before + 2).size(), lost_before + 1)
        << "so is an attempt without a broker";
    broker_.Start();
    ASSERT_TRUE(Eventually([&] {
      (void)client->Reconnect();
      return Eventually([&] { return client->IsConnected(); });
    })) << log_.Text();
    EXPECT_TRUE(Reaches(*client, "t", std::to_string(round), box_));
  }
}

TEST_F(MqttBrokerTest, ReportsHostsThatNeverAnswerOrVanishInMidConnect) {
  const test::DeafListener deaf(8);
  const test::DeafListener vanishing(8);
  const std::jthread gone([&] { close(accept(vanishing.Fd(), nullptr, nullptr)); });
  const auto client = NewClient("d");
  size_t lost = 0;
  for (const auto& [host, port] : {std::pair("127.0.0.1", std::to_string(deaf.Port())),
                                   {"127.0.0.1", std::to_string(vanishing.Port())},
                                   {"no-such-host.invalid", broker_.Port()}}) {
    auto settings = Settings("d");
    settings.host = host;
    settings.port = port;
    settings.connect_timeout_s = 1;
    (void)client->Connect(settings);
    EXPECT_EQ(lost_.WaitFor(++lost).size(), lost) << host << ":" << port;
  }
  EXPECT_TRUE(ConnectAndWait(*client, "d"));
}

}  // namespace
}  // namespace varnel::comms

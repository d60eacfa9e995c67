#include "comms/client_mqtt_async.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "comms/mqtt_library.h"
#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"

namespace varnel::comms {
namespace {

/// The library with failure switches; the test plays its callbacks.
class FakePaho : public PahoAsyncApi {
 public:
  std::string Version() const override { return "1.3.12"; }
  int Create(MQTTAsync* handle, const std::string&, const std::string&,
             MQTTAsync_createOptions&) override {
    if (create_code == MQTTASYNC_SUCCESS) {
      *handle = &handle_storage_;
      ++live;
    }
    return create_code;
  }
  int SetCallbacks(MQTTAsync, void* new_context, MQTTAsync_connectionLost* lost_callback,
                   MQTTAsync_messageArrived* arrived_callback) override {
    context = new_context;
    lost = lost_callback;
    arrived = arrived_callback;
    return callbacks_code;
  }
  int SetDisconnected(MQTTAsync, void*, MQTTAsync_disconnected* callback) override {
    disconnected = callback;
    return MQTTASYNC_SUCCESS;
  }
  int Connect(MQTTAsync, const MQTTAsync_connectOptions& options) override {
    ++connects;
    connect_options = options;
    return connect_code;
  }
  std::string Resolve(const std::string&) override { return resolve_problem; }
  void AwaitUnlocked(MQTTAsync) override {}
  int Disconnect(MQTTAsync, const MQTTAsync_disconnectOptions& options) override {
    if (disconnect_answers) options.onSuccess5(options.context, nullptr);
    return MQTTASYNC_SUCCESS;
  }
  int Subscribe(MQTTAsync, const std::string& filter, int qos,
                MQTTAsync_responseOptions& options) override {
    subscribed.Put(filter + "@" + std::to_string(qos));
    if (subscribe_refused) {
      MQTTAsync_failureData5 data = MQTTAsync_failureData5_initializer;
      data.code = -1;
      data.reasonCode = MQTTREASONCODE_NOT_AUTHORIZED;
      options.onFailure5(options.context, &data);
    }
    return subscribe_code;
  }
  int Send(MQTTAsync, const std::string&, const MQTTAsync_message& message,
           MQTTAsync_responseOptions&) override {
    ++send_calls;
    if (on_send) on_send();
    if (full > 0) {
      --full;
      return MQTTASYNC_MAX_BUFFERED_MESSAGES;
    }
    if (send_code == MQTTASYNC_SUCCESS) {
      sent.Put(std::string(static_cast<const char*>(message.payload),
                           static_cast<size_t>(message.payloadlen)));
    }
    return send_code;
  }
  void Destroy(MQTTAsync) override { --live; }

  void Succeed() { connect_options.onSuccess5(connect_options.context, nullptr); }
  void Fail() { connect_options.onFailure5(connect_options.context, nullptr); }
  void Arrive(const std::string& topic, const std::string& payload) {
    MQTTAsync_message* message = NewMessage(payload);
    auto* name = static_cast<char*>(MQTTAsync_malloc(topic.size() + 1));
    std::copy_n(topic.c_str(), topic.size() + 1, name);
    arrived(context, name, 0, message);
  }

  std::string resolve_problem;
  int create_code = MQTTASYNC_SUCCESS;
  int callbacks_code = MQTTASYNC_SUCCESS;
  int connect_code = MQTTASYNC_SUCCESS;
  int subscribe_code = MQTTASYNC_SUCCESS;
  int send_code = MQTTASYNC_SUCCESS;
  std::function<void()> on_send;
  bool subscribe_refused = false;
  bool disconnect_answers = true;
  int full = 0;

  int live = 0;
  int connects = 0;
  int send_calls = 0;
  void* context = nullptr;
  MQTTAsync_connectOptions connect_options{};
  MQTTAsync_connectionLost* lost = nullptr;
  MQTTAsync_messageArrived* arrived = nullptr;
  MQTTAsync_disconnected* disconnected = nullptr;
  test::Mailbox<std::string> subscribed;
  test::Mailbox<std::string> sent;

 private:
  static MQTTAsync_message* NewMessage(const std::string& payload) {
    auto* message = static_cast<MQTTAsync_message*>(MQTTAsync_malloc(sizeof(MQTTAsync_message)));
    *message = MQTTAsync_message_initializer;
    message->payload = MQTTAsync_malloc(payload.size() + 1);
    std::copy_n(payload.data(), payload.size(), static_cast<char*>(message->payload));
    message->payloadlen = static_cast<int>(payload.size());
    return message;
  }

  int handle_storage_ = 0;
};

class ClientMqttAsyncTest : public ::testing::Test {
 protected:
  ClientMqttAsyncTest() {
    client_.SetConnectionLostCallback([this] { ++lost_; });
  }
  void Connect() {
    ASSERT_EQ(client_.Connect(settings_), CommsStatus::kOk);
    paho_.Succeed();
    ASSERT_TRUE(client_.IsConnected());
  }
  CommsStatus Send(const std::string& payload) {
    return client_.Send("t", Qos::kAtMostOnce, false, payload);
  }

  test::LogCapture log_;
  FakePaho paho_;
  test::FakeClock clock_{test::FakeClock::Waiting::kJump};
  MqttConnectSettings settings_{.host = "h", .port = "1", .client_id = "id"};
  int lost_ = 0;
  ClientMqttAsync client_{"T", Qos::kAtMostOnce, paho_, clock_};
};

TEST_F(ClientMqttAsyncTest, Message257QueuedBehindABlockedListenerDropsTheOldest) {
  std::latch entered(1);
  std::latch gate(1);
  test::Mailbox<std::string> seen;
  (void)client_.AddListener("t", [&](const std::shared_ptr<MqttMessage>& message) {
    if (message->payload == "blocker") {
      entered.count_down();
      gate.wait();
    }
    seen.Put(message->payload);
  });
  Connect();
  paho_.Arrive("t", "blocker");
  entered.wait();
  for (int i = 0; i <= 256; ++i) paho_.Arrive("t", std::to_string(i));
  EXPECT_EQ(log_.Count("MQTT", "T: queue full (256 messages), dropping oldest"), 1U);
  gate.count_down();
  const auto messages = seen.WaitFor(257);
  ASSERT_EQ(messages.size(), 257U);
  EXPECT_EQ(messages[1], "1") << "\"0\" was the oldest";
  EXPECT_EQ(messages[256], "256");
}

TEST_F(ClientMqttAsyncTest, AnotherConnectReplacesTheHandle) {
  Connect();
  settings_.root_ca = "/ca";
  ASSERT_EQ(client_.Connect(settings_), CommsStatus::kOk);
  EXPECT_EQ(paho_.live, 1) << "the first handle is gone";
  EXPECT_EQ(ServerUri(settings_, "1.3.12"), "mqtts://h:1");
  EXPECT_EQ(ServerUri(settings_, "1.3.10"), "ssl://h:1");
  EXPECT_EQ(ServerUri(settings_, "1.4"), "mqtts://h:1");
  EXPECT_EQ(ServerUri({.host = "h", .port = "1"}, "unknown"), "tcp://h:1");
}

TEST_F(ClientMqttAsyncTest, OneAttemptAtATime) {
  ASSERT_EQ(client_.Connect(settings_), CommsStatus::kOk);
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kBusy);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kBusy);
  EXPECT_TRUE(log_.Has("MQTT", "T: Connect called while already connecting, ignored"));
  EXPECT_TRUE(log_.Has("MQTT", "T: already connecting, reconnect ignored"));
  EXPECT_EQ(paho_.connects, 1);
  paho_.Succeed();
  paho_.Succeed();  // the library may report twice
  EXPECT_EQ(log_.Count("MQTT", "T: connected successfully"), 1U);
}

TEST_F(ClientMqttAsyncTest, EveryFailedAttemptIsReportedAndCanBeRepeated) {
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kNotInitialized);
  EXPECT_TRUE(log_.Has("MQTT", "T: reconnect called but client not initialized"));
  EXPECT_EQ(lost_, 0);

  paho_.create_code = -1;
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kFailure);
  EXPECT_EQ(lost_, 1);
  paho_.create_code = MQTTASYNC_SUCCESS;
  paho_.callbacks_code = -1;
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kFailure);
  EXPECT_TRUE(log_.Has("MQTT", "T: failed to set callbacks, rc: -1"));
  EXPECT_EQ(lost_, 2);
  paho_.callbacks_code = MQTTASYNC_SUCCESS;
  paho_.connect_code = -1;
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kFailure);
  EXPECT_TRUE(log_.Has("MQTT", "T: failed to start async connection, rc: -1"));
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kFailure);
  EXPECT_TRUE(log_.Has("MQTT", "T: reconnect failed, rc: -1"));
  EXPECT_EQ(lost_, 4);
  EXPECT_EQ(paho_.live, 0);

  paho_.connect_code = MQTTASYNC_SUCCESS;
  paho_.resolve_problem = "Name or service not known";
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kFailure);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kFailure);
  EXPECT_EQ(lost_, 6);
  EXPECT_EQ(paho_.live, 0) << "the library is not asked, it would look up with its lock held";
  paho_.resolve_problem.clear();
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kOk) << "builds the handle again";
  paho_.Fail();
  EXPECT_EQ(lost_, 7);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kOk);
  paho_.Succeed();
  EXPECT_TRUE(client_.IsConnected());
  client_.Disconnect();
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kNotInitialized) << "a wanted end stays";
  EXPECT_EQ(paho_.live, 0);
}

TEST_F(ClientMqttAsyncTest, ABrokerThatTakesItsLeaveIsALostConnection) {
  Connect();
  paho_.disconnected(paho_.context, nullptr, MQTTREASONCODE_SESSION_TAKEN_OVER);
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_EQ(lost_, 1);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kOk);
  paho_.Succeed();
  EXPECT_TRUE(client_.IsConnected());
}

TEST_F(ClientMqttAsyncTest, SubscribesOnEveryConnectAndWhenAListenerIsAdded) {
  const auto ignore = [](const std::shared_ptr<MqttMessage>&) {};
  EXPECT_EQ(client_.AddListener("", ignore), CommsStatus::kInvalidArgument);
  EXPECT_EQ(client_.AddListener("a", nullptr), CommsStatus::kInvalidArgument);
  (void)client_.AddListener("a", ignore);
  (void)client_.AddListener("a", ignore);
  EXPECT_TRUE(log_.Has("MQTT", "T: topic a already has a listener, overwriting"));
  Connect();
  (void)client_.AddListener("b/+", ignore);
  paho_.lost(paho_.context, nullptr);
  EXPECT_TRUE(log_.Has("MQTT", "T: connection lost, cause: unknown"));
  EXPECT_EQ(lost_, 1);
  ASSERT_EQ(client_.Reconnect(), CommsStatus::kOk);
  paho_.Succeed();
  EXPECT_EQ(paho_.subscribed.Items(), (std::vector<std::string>{"a@0", "b/+@0", "a@0", "b/+@0"}));

  paho_.subscribe_code = -9;
  EXPECT_EQ(client_.AddListener("c", ignore), CommsStatus::kFailure);
  EXPECT_TRUE(log_.Has("MQTT", "T: failed to subscribe topic c, rc: -9"));
  paho_.subscribe_code = MQTTASYNC_SUCCESS;
  paho_.subscribe_refused = true;
  (void)client_.AddListener("d", ignore);
  EXPECT_TRUE(log_.Has(
      "MQTT", "T: subscribe failed, rc: -1, reasonCode: 135, will retry on next reconnect"));
}

TEST_F(ClientMqttAsyncTest, SendsOnlyOverALiveLink) {
  EXPECT_EQ(Send("x"), CommsStatus::kNotInitialized);
  EXPECT_TRUE(log_.Has("MQTT", "T: client handle is null, cannot send"));
  ASSERT_EQ(client_.Connect(settings_), CommsStatus::kOk);
  EXPECT_EQ(Send("x"), CommsStatus::kNotConnected);
  EXPECT_TRUE(log_.Has("MQTT", "T: not connected"));
  EXPECT_EQ(paho_.send_calls, 0);
  paho_.Succeed();
  EXPECT_EQ(Send("x"), CommsStatus::kOk);
  paho_.send_code = MQTTASYNC_FAILURE;
  EXPECT_EQ(Send("x"), CommsStatus::kFailure);
  EXPECT_TRUE(client_.IsConnected());
  EXPECT_TRUE(log_.Has("MQTT", "T: send failed on topic t, rc: -1"));
  paho_.send_code = MQTTASYNC_DISCONNECTED;
  EXPECT_EQ(Send("x"), CommsStatus::kNotConnected);
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_TRUE(log_.Has("MQTT", "T: send on topic t detected disconnection, marking offline"));
  paho_.Succeed();
  paho_.on_send = [this] {  // the link goes and comes back before the sender is told
    paho_.lost(paho_.context, nullptr);
    paho_.Succeed();
  };
  EXPECT_EQ(Send("x"), CommsStatus::kNotConnected);
  EXPECT_TRUE(client_.IsConnected());
}

TEST_F(ClientMqttAsyncTest, AFullBufferIsWaitedForWithinALimit) {
  Connect();
  paho_.full = 5;
  EXPECT_EQ(Send("late"), CommsStatus::kOk);
  EXPECT_EQ(paho_.sent.Items(), std::vector<std::string>{"late"});
  paho_.full = 1'000'000;
  EXPECT_EQ(Send("never"), CommsStatus::kFailure);
  EXPECT_TRUE(log_.Has("MQTT", "T: send failed on topic t, rc: -12"));
}

TEST_F(ClientMqttAsyncTest, UnusableMessagesNeverReachAListener) {
  test::Mailbox<std::string> seen;
  (void)client_.AddListener("t", [&](const std::shared_ptr<MqttMessage>& message) {
    if (message->payload == "throw") throw std::runtime_error("listener broke");
    seen.Put(message->payload);
  });
  Connect();
  paho_.arrived(paho_.context, nullptr, 3, nullptr);
  EXPECT_TRUE(log_.Has("MQTT", "T: invalid topic (null), length 3"));
  auto* topic = static_cast<char*>(MQTTAsync_malloc(2));
  topic[0] = 't';
  topic[1] = 0;
  paho_.arrived(paho_.context, topic, 0, nullptr);
  EXPECT_TRUE(log_.Has("MQTT", "T: invalid message on topic t"));
  for (const char* payload : {"", "throw", "good"}) paho_.Arrive("t", payload);
  paho_.Arrive("other", "x");
  paho_.Arrive("t", "last");
  EXPECT_EQ(seen.WaitFor(2), (std::vector<std::string>{"good", "last"}));
  EXPECT_TRUE(log_.Has("MQTT", "T: message payload is empty, skipping"));
  EXPECT_TRUE(log_.Has("MQTT", "T: exception in listener callback: listener broke"));
  EXPECT_TRUE(log_.Has("MQTT", "T: no listener for topic: other"));
}

TEST_F(ClientMqttAsyncTest, CallbacksOfADestroyedHandleFindNothing) {
  Connect();
  void* const old_context = paho_.context;
  const auto old_options = paho_.connect_options;
  client_.Disconnect();
  paho_.lost(old_context, nullptr);
  old_options.onSuccess5(old_context, nullptr);
  paho_.Arrive("t", "x");
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_EQ(lost_, 0);
  EXPECT_TRUE(log_.Has("MQTT", "MQTT client: message arrived but client is null"));
}

TEST_F(ClientMqttAsyncTest, DisconnectDoesNotWaitForEver) {
  Connect();
  paho_.disconnect_answers = false;
  std::latch entered(1);
  std::latch gate(1);
  client_.SetConnectionLostCallback([&] {
    entered.count_down();
    gate.wait();
  });
  std::jthread library([&] { paho_.lost(paho_.context, nullptr); });
  entered.wait();
  std::jthread waiter([&] { client_.Disconnect(); });
  waiter.join();
  EXPECT_TRUE(log_.Has("MQTT", "T: timed out waiting for active callbacks, forcing disconnect"));
  EXPECT_TRUE(log_.Has("MQTT", "T: disconnected"));
  EXPECT_EQ(paho_.live, 0);
  gate.count_down();
}

}  // namespace
}  // namespace varnel::comms

#include "comms/client_mqtt_async.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <stdexcept>
#include <thread>

#include "comms/fake_paho.h"
#include "comms/mqtt_library.h"
#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"

namespace varnel::comms {
namespace {

using test::Eventually;

using Kind = LinkEvent::Kind;

class ClientMqttAsyncTest : public ::testing::Test {
 protected:
  ClientMqttAsyncTest() {
    client_.SetLinkCallback([this](const LinkEvent& event) {
      events_.Put(event);
      throw std::runtime_error("an owner's own fault, which costs no thread and no other callback");
    });
    client_.SetConnectionLostCallback([this] { ++lost_; });
  }
  /// Returns when the library has been asked.
  void Start() {
    const int before = paho_.connects;
    ASSERT_EQ(client_.Connect(settings_), CommsStatus::kOk);
    ASSERT_TRUE(Eventually([&] { return paho_.connects > before; }));
  }
  void Connect(int receive_maximum = 0) {
    Start();
    paho_.Succeed(receive_maximum);
    ASSERT_TRUE(Eventually([&] { return client_.IsConnected(); }));
  }
  /// The connection is this event.
  void Reconnect(size_t event) {
    const int before = paho_.connects;
    ASSERT_EQ(client_.Reconnect(), CommsStatus::kOk);
    ASSERT_TRUE(Eventually([&] { return paho_.connects > before; }));
    paho_.Succeed();
    EXPECT_EQ(Event(event).kind, Kind::kConnected);
  }
  CommsStatus Send(const std::string& payload, Qos qos = Qos::kAtMostOnce) {
    return client_.Send("t", qos, false, payload);
  }
  LinkEvent Event(size_t count) {
    const auto events = events_.WaitFor(count);
    return events.size() == count ? events.back() : LinkEvent{.text = "another number of events"};
  }
  /// Passes time until it is done.
  bool InTime(const std::function<bool()>& done) {
    return Eventually([&] {
      clock_.Advance(std::chrono::seconds(1));
      return done();
    });
  }

  test::LogCapture log_;
  std::latch answer_{1};  ///< of a name server; look-ups that wait for it end with the client
  FakePaho paho_;
  test::FakeClock clock_;
  MqttConnectSettings settings_{.host = "192.0.2.7", .port = "1", .client_id = "id"};
  std::atomic<int> lost_ = 0;
  test::Mailbox<LinkEvent> events_;
  ClientMqttAsync client_{"T", Qos::kAtMostOnce, paho_, clock_};
};

TEST_F(ClientMqttAsyncTest, AnotherConnectReplacesTheHandle) {
  Connect();
  settings_.root_ca = "/ca";
  Start();
  EXPECT_EQ(paho_.live, 1) << "the first handle is gone";
  EXPECT_EQ(Event(2).kind, Kind::kEnded);
  EXPECT_EQ(ServerUri(settings_, "1.3.12"), "mqtts://192.0.2.7:1");
  EXPECT_EQ(ServerUri(settings_, "1.3.10"), "ssl://192.0.2.7:1");
  EXPECT_EQ(ServerUri(settings_, "1.4"), "mqtts://192.0.2.7:1");
  EXPECT_EQ(ServerUri({.host = "h", .port = "1"}, "unknown"), "tcp://h:1");
}

TEST_F(ClientMqttAsyncTest, OneAttemptAtATime) {
  Start();
  EXPECT_EQ(client_.Phase(), LinkPhase::kConnecting);
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kBusy);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kBusy);
  EXPECT_EQ(paho_.connects, 1);
  paho_.Succeed();
  paho_.Succeed();  // the library may report twice
  EXPECT_EQ(Event(1).kind, Kind::kConnected);
}

TEST_F(ClientMqttAsyncTest, EveryFailedAttemptIsReportedOnceAndCanBeRepeated) {
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kNotInitialized);
  Start();
  paho_.Fail(MQTTREASONCODE_BAD_USER_NAME_OR_PASSWORD);
  EXPECT_EQ(Event(1).reason_code, MQTTREASONCODE_BAD_USER_NAME_OR_PASSWORD);
  size_t attempt = 1;
  for (int FakePaho::*code :
       {&FakePaho::connect_code, &FakePaho::create_code, &FakePaho::callbacks_code}) {
    paho_.*code = -2;
    for (const bool again : {true, false}) {
      EXPECT_EQ(again ? client_.Reconnect() : client_.Connect(settings_), CommsStatus::kOk);
      EXPECT_EQ(Event(++attempt).kind, Kind::kFailed);
      EXPECT_EQ(Event(attempt).attempt, attempt);
      EXPECT_EQ(Event(attempt).return_code, code == &FakePaho::connect_code ? -2 : 0);
      EXPECT_EQ(paho_.live, 0);
    }
    paho_.*code = MQTTASYNC_SUCCESS;
  }
  settings_.host = "broker";
  paho_.look_up_problem = "Name or service not known";
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kOk);
  EXPECT_EQ(Event(8).text, "host broker: Name or service not known");
  EXPECT_EQ(paho_.live, 0) << "the library is not asked";
  EXPECT_EQ(client_.Phase(), LinkPhase::kDown);
  EXPECT_TRUE(Eventually([&] { return lost_ == 8; }));
  paho_.look_up_problem.clear();
  Reconnect(9);
  client_.Disconnect();
  EXPECT_EQ(Event(10).kind, Kind::kEnded);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kNotInitialized) << "a wanted end stays";
  EXPECT_EQ(paho_.live, 0);
}

TEST_F(ClientMqttAsyncTest, AnEndCancelsALookUpAndAnAttemptForGood) {
  std::latch asked(1);
  paho_.on_look_up = [&](const std::string&) {
    asked.count_down();
    answer_.wait();
  };
  settings_.host = "broker";
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kOk) << "at once, nobody waits for the name";
  asked.wait();
  client_.Disconnect();
  EXPECT_EQ(Event(1).kind, Kind::kEnded);
  answer_.count_down();
  settings_.host = "192.0.2.7";
  Start();
  EXPECT_EQ(paho_.connects, 1) << "the first was never started";
  const auto attempt = paho_.connect_options;
  client_.Disconnect();
  attempt.onSuccess5(attempt.context, nullptr);
  EXPECT_EQ(Event(2).kind, Kind::kEnded);
  EXPECT_FALSE(client_.IsConnected());
  Connect();
  client_.Close();
  client_.AwaitClosed();
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kNotInitialized);
  EXPECT_EQ(client_.Reconnect(), CommsStatus::kNotInitialized);
  EXPECT_EQ(Event(4).kind, Kind::kEnded);
  EXPECT_EQ(paho_.live, 0);
}

TEST_F(ClientMqttAsyncTest, NoLookUpOutlastsAnAttemptAndFewRunAtATime) {
  paho_.on_look_up = [this](const std::string&) { answer_.wait(); };
  settings_.host = "broker";
  for (size_t attempt = 1; attempt <= NameLookups::kMaxRunning; ++attempt) {
    EXPECT_EQ(client_.Connect(settings_), CommsStatus::kOk);
    EXPECT_TRUE(InTime([&] { return client_.Phase() == LinkPhase::kDown; }));
    EXPECT_EQ(Event(attempt).kind, Kind::kFailed) << "a name server that stays silent";
  }
  EXPECT_EQ(client_.Connect(settings_), CommsStatus::kOk);
  EXPECT_EQ(Event(NameLookups::kMaxRunning + 1).kind, Kind::kFailed);
  answer_.count_down();
}

TEST_F(ClientMqttAsyncTest, ABrokerThatTakesItsLeaveIsALostConnection) {
  Connect();
  paho_.disconnected(paho_.context, nullptr, MQTTREASONCODE_SESSION_TAKEN_OVER);
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_EQ(Event(2).kind, Kind::kLost);
  EXPECT_EQ(Event(2).reason_code, MQTTREASONCODE_SESSION_TAKEN_OVER);
  Reconnect(3);
  EXPECT_TRUE(Eventually([&] { return lost_ == 1; }));
}

TEST_F(ClientMqttAsyncTest, SubscribesOnEveryConnectAndWhenAListenerIsAdded) {
  const auto ignore = [](const std::shared_ptr<MqttMessage>&) {};
  EXPECT_EQ(client_.AddListener("", ignore), CommsStatus::kInvalidArgument);
  EXPECT_EQ(client_.AddListener("a", nullptr), CommsStatus::kInvalidArgument);
  (void)client_.AddListener("a", ignore);
  (void)client_.AddListener("a", ignore);
  Connect();
  (void)client_.AddListener("b/+", ignore);
  paho_.lost(paho_.context, nullptr);
  Reconnect(3);
  EXPECT_EQ(paho_.subscribed.Items(), (std::vector<std::string>{"a@0", "b/+@0", "a@0", "b/+@0"}));

  paho_.subscribe_code = -9;
  EXPECT_EQ(client_.AddListener("c", ignore), CommsStatus::kFailure);
  paho_.subscribe_code = MQTTASYNC_SUCCESS;
  paho_.subscribe_refused = true;
  (void)client_.AddListener("d", ignore);
  EXPECT_TRUE(client_.IsConnected()) << "the local link goes on";
}

TEST_F(ClientMqttAsyncTest, ALinkThatNeedsThemIsUpWithEverySubscription) {
  settings_.needs_every_subscription = true;
  (void)client_.AddListener("a", [](const std::shared_ptr<MqttMessage>&) {});
  paho_.acknowledges = false;
  Start();
  paho_.Succeed();
  ASSERT_EQ(paho_.subscribed.WaitFor(1).size(), 1U);
  EXPECT_EQ(client_.Phase(), LinkPhase::kConnecting);
  EXPECT_TRUE(InTime([&] { return client_.Phase() == LinkPhase::kDown; }));
  EXPECT_EQ(Event(1).text, "no outcome in time");
  EXPECT_EQ(paho_.live, 0);

  paho_.subscribe_refused = true;
  Start();
  paho_.Succeed();
  EXPECT_EQ(Event(2).kind, Kind::kFailed);
  EXPECT_EQ(Event(2).reason_code, MQTTREASONCODE_NOT_AUTHORIZED);
  EXPECT_TRUE(Eventually([&] { return paho_.live == 0; }));
  paho_.subscribe_refused = false;
  paho_.acknowledges = true;
  Connect();
  paho_.subscribe_refused = true;
  (void)client_.AddListener("b", [](const std::shared_ptr<MqttMessage>&) {});
  EXPECT_EQ(Event(4).kind, Kind::kLost) << "a link that is deaf for one topic";
}

TEST_F(ClientMqttAsyncTest, SendsOnlyOverALiveLink) {
  EXPECT_EQ(Send("x"), CommsStatus::kNotInitialized);
  Start();
  EXPECT_EQ(Send("x"), CommsStatus::kNotConnected);
  paho_.Succeed();
  EXPECT_EQ(Event(1).kind, Kind::kConnected);
  EXPECT_EQ(Send("x"), CommsStatus::kOk);
  paho_.send_code = MQTTASYNC_FAILURE;
  EXPECT_EQ(Send("x"), CommsStatus::kFailure);
  EXPECT_TRUE(client_.IsConnected());
  paho_.send_code = MQTTASYNC_DISCONNECTED;
  EXPECT_EQ(Send("x"), CommsStatus::kNotConnected);
  EXPECT_FALSE(client_.IsConnected());
  Reconnect(3);
  paho_.on_send = [this] { paho_.lost(paho_.context, nullptr); };
  EXPECT_EQ(Send("x"), CommsStatus::kNotConnected);
  EXPECT_EQ(Event(4).kind, Kind::kLost) << "once, though two told it";
  Reconnect(5);
  paho_.on_send = nullptr;
  paho_.send_code = MQTTASYNC_SUCCESS;
  EXPECT_EQ(client_.SendOn(2, "t", Qos::kAtLeastOnce, "late"), CommsStatus::kNotConnected);
  EXPECT_EQ(client_.SendOn(3, "t", Qos::kAtLeastOnce, "y"), CommsStatus::kOk);
  EXPECT_EQ(paho_.sent.Items().back(), "y");
}

TEST_F(ClientMqttAsyncTest, AFullBufferIsWaitedForWithinALimit) {
  Connect(3);
  paho_.full = 5;
  std::atomic<int> done = 0;
  std::jthread sender([&] {
    EXPECT_EQ(Send("late"), CommsStatus::kOk);
    ++done;
    paho_.full = 1'000'000;
    EXPECT_EQ(Send("never"), CommsStatus::kFailure);
    ++done;
    paho_.full = 0;
    for (const char* payload : {"1", "2", "3"})
      EXPECT_EQ(Send(payload, Qos::kAtLeastOnce), CommsStatus::kOk);
    EXPECT_EQ(Send(std::string(SendWindow::kMaxBytes, 'x')), CommsStatus::kOk);
    ++done;
  });
  // In small steps: the sender must have its tries within the limit, however busy the machine.
  EXPECT_TRUE(Eventually([&] {
    clock_.Advance(std::chrono::milliseconds(5));
    return done >= 1;
  }));
  EXPECT_TRUE(InTime([&] { return done == 2; }));
  EXPECT_EQ(paho_.sent.WaitFor(3), (std::vector<std::string>{"late", "1", "2"}))
      << "below the broker's receive maximum";
  paho_.Deliver();
  paho_.Deliver();
  EXPECT_EQ(paho_.sent.WaitFor(4).back(), "3");
  EXPECT_EQ(done, 2) << "64 MiB are the most beside anything else";
  paho_.Deliver();
  paho_.Deliver();
  EXPECT_EQ(paho_.sent.WaitFor(5).size(), 5U);
}

TEST_F(ClientMqttAsyncTest, UnusableMessagesNeverReachAListener) {
  test::Mailbox<std::string> seen;
  (void)client_.AddListener("t", [&](const std::shared_ptr<MqttMessage>& message) {
    if (message->payload == "throw") throw std::runtime_error("listener broke");
    seen.Put(message->payload);
  });
  Connect();
  paho_.arrived(paho_.context, nullptr, 3, nullptr);
  paho_.arrived(paho_.context, paho_.Copy("t"), 0, nullptr);
  for (const char* payload : {"", "throw", "good"}) paho_.Arrive("t", payload);
  paho_.Arrive("other", "x");
  paho_.Arrive("t", "last");
  EXPECT_EQ(seen.WaitFor(2), (std::vector<std::string>{"good", "last"}));
}

TEST_F(ClientMqttAsyncTest, TakingAListenerAwayWaitsForThatOneOnly) {
  std::latch entered(1);
  std::latch gate(1);
  std::atomic<bool> ended = false;
  (void)client_.AddListener("slow", [&](const std::shared_ptr<MqttMessage>&) {
    entered.count_down();
    gate.wait();
    ended = true;
  });
  (void)client_.AddListener("other", [](const std::shared_ptr<MqttMessage>&) {});
  Connect();
  paho_.Arrive("slow", "x");
  entered.wait();
  client_.RemoveListener("other");  // would wait for ever
  std::jthread opener([&] { gate.count_down(); });
  client_.RemoveListener("slow");
  EXPECT_TRUE(ended);
}

TEST_F(ClientMqttAsyncTest, CallbacksOfADestroyedHandleFindNothing) {
  Connect();
  void* const old_context = paho_.context;
  const auto old_options = paho_.connect_options;
  client_.Disconnect();
  EXPECT_EQ(Event(2).kind, Kind::kEnded);
  paho_.lost(old_context, nullptr);
  old_options.onSuccess5(old_context, nullptr);
  paho_.Arrive("t", "x");
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_EQ(lost_, 0);
}

TEST_F(ClientMqttAsyncTest, DisconnectDoesNotWaitForEver) {
  Connect();
  paho_.disconnect_answers = false;
  std::latch entered(1);
  std::latch gate(1);
  std::jthread library([&] {
    CallbackRegistry<ClientMqttAsync>::Instance().Run(paho_.context, [&](ClientMqttAsync&) {
      entered.count_down();
      gate.wait();
    });
  });
  entered.wait();
  std::atomic<bool> done = false;
  std::jthread waiter([&] {
    client_.Disconnect();
    done = true;
  });
  EXPECT_TRUE(InTime([&] { return done.load(); }));
  EXPECT_TRUE(log_.Has("MQTT", "T: timed out waiting for active callbacks, forcing disconnect"));
  EXPECT_EQ(paho_.live, 0);
  gate.count_down();
}

}  // namespace
}  // namespace varnel::comms

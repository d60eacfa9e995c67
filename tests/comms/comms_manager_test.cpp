#include "comms/comms_manager.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>

#include "support/eventually.h"
#include "support/fake_mqtt_client.h"
#include "support/log_capture.h"

/// Of the sanitizer that this program is built with, if it is.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizers' name
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace varnel::comms {
namespace {

using test::FakeMqttClient;

class CommsManagerTest : public ::testing::Test {
 protected:
  CommsManagerTest() {
    manager_.SetSerialNumberProvider([] { return std::string("SN1"); });
  }

  void Init() {
    ASSERT_EQ(manager_.InitLocal(), CommsStatus::kOk);
    ASSERT_EQ(manager_.ConnectLocal("127.0.0.1", "1883", "varnel"), CommsStatus::kOk);
    ASSERT_EQ(Register("system.open", 1, [](const Json& params) { return params; }),
              CommsStatus::kOk);
  }
  CommsStatus Register(const std::string& method, uint32_t flag, RpcHandler handler) {
    return manager_.RegisterMethod(method, flag, MethodKind::kQuick, std::move(handler));
  }
  void InitCloud() {
    Init();
    manager_.SetCloudEventCallback([this](const LinkEvent& event) { events_.Put(event.kind); });
    manager_.InitCloud("Varnel Cloud");
    ASSERT_EQ(manager_.ConnectCloud(endpoint_), CommsStatus::kOk);
    manager_.SetCloudFilter([this] { return logging_out_.load(); });
    ASSERT_EQ(manager_.SetupCloudForwarding("SN1"), CommsStatus::kOk);
  }
  FakeMqttClient& Local() { return *clients_.at("Varnel Local"); }
  FakeMqttClient& Cloud() { return *clients_.at("Varnel Cloud"); }

  Json AskFromCloud(const std::string& payload) {
    const size_t before = Cloud().sent.Items().size();
    Cloud().Arrive("SN1/request", payload);
    const auto sent = Cloud().sent.WaitFor(before + 1);
    if (sent.size() != before + 1) return "no answer";
    EXPECT_EQ(sent.back().topic, "SN1/response");
    EXPECT_EQ(sent.back().qos, Qos::kAtLeastOnce);
    EXPECT_FALSE(sent.back().retain);
    return Json::parse(sent.back().payload);
  }

  bool Logged(const char* tag, const std::string& line) {
    return test::Eventually([&] { return log_.Has(tag, line); });
  }

  const CloudEndpoint endpoint_{.host = "h", .port = "8883", .client_id = "c"};
  test::LogCapture log_;
  test::Mailbox<LinkEvent::Kind> events_;
  std::map<std::string, std::shared_ptr<FakeMqttClient>> clients_;
  std::atomic<bool> logging_out_ = false;
  CommsManager manager_{[this](const std::string& name, Qos) {
    return clients_[name] = std::make_shared<FakeMqttClient>(name);
  }};
};

TEST_F(CommsManagerTest, CallsOutOfOrderAreRefused) {
  EXPECT_EQ(Code(Register("m.early", 1, [](const Json&) { return Json(); })), -8);
  EXPECT_NE(manager_.ConnectLocal("h", "1", "i"), CommsStatus::kOk);
  EXPECT_NE(manager_.ConnectCloud({}), CommsStatus::kOk);
  EXPECT_NE(manager_.SetupCloudForwarding("SN1"), CommsStatus::kOk);
  EXPECT_EQ(manager_.SendNotification("a/notification", "notify_x", {}),
            CommsStatus::kNotInitialized);
  EXPECT_FALSE(manager_.IsLocalConnected());
  manager_.SetSerialNumberProvider([]() -> std::string { throw std::runtime_error("storage"); });
  EXPECT_THROW((void)manager_.InitLocal(), std::runtime_error);
  manager_.SetSerialNumberProvider([] { return std::string("SN1"); });

  Init();
  EXPECT_TRUE(log_.Has("COMMS", "CommsManager initialized (sn=SN1)"));
  EXPECT_EQ(manager_.InitLocal(), CommsStatus::kOk);
  manager_.Stop();
  EXPECT_FALSE(manager_.IsLocalConnected());
  EXPECT_EQ(Code(Register("m.late", 1, [](const Json&) { return Json(); })), -8);
  EXPECT_EQ(Code(manager_.InitLocal()), -8);
  EXPECT_EQ(Code(manager_.ConnectLocal("h", "1", "i")), -8);
  manager_.ReconnectLocal();
  EXPECT_FALSE(manager_.IsLocalConnected()) << "nothing connects any more";
}

TEST_F(CommsManagerTest, OneNotifierServesEachTopic) {
  Init();
  for (const char* topic : {"a/notification", "a/notification", "system/notification"})
    EXPECT_EQ(manager_.SendNotification(topic, "notify_x", {{"k", 1}}), CommsStatus::kOk);
  EXPECT_EQ(log_.Count("JRPCC", "Create a JSON-RPC client: a/notification"), 1U);
  EXPECT_EQ(log_.Count("JRPCC", "Create a JSON-RPC client: system/notification"), 0U)
      << "system_notif serves it";
  EXPECT_EQ(Local().sent.Items().size(), 3U);
}

TEST_F(CommsManagerTest, AFirstConnectThatFailsAsksForAReconnect) {
  int lost = 0;
  manager_.SetLocalDisconnectCallback([&] { ++lost; });
  manager_.SetLocalDisconnectCallback(nullptr);
  ASSERT_EQ(manager_.InitLocal(), CommsStatus::kOk);
  Local().connects = false;
  EXPECT_NE(manager_.ConnectLocal("127.0.0.1", "1883", "varnel"), CommsStatus::kOk);
  EXPECT_EQ(lost, 1);
  Local().connects = true;
  manager_.ReconnectLocal();
  EXPECT_TRUE(manager_.IsLocalConnected());
  manager_.ReconnectLocal();
  EXPECT_EQ(Local().reconnects, 1) << "a link that is up is left alone";
  Local().Lose();
  EXPECT_EQ(lost, 2);
}

TEST_F(CommsManagerTest, WhatCannotBeServedOrSentForTheCloudIsRefusedOrDropped) {
  InitCloud();
  (void)Register("mqtt_agent.inner", 0, [](const Json& params) { return params; });
  EXPECT_EQ(AskFromCloud(R"({"id":3,"method":"mqtt_agent.inner"})")["error"]["data"],
            "Method not found: mqtt_agent.inner");
  EXPECT_EQ(AskFromCloud(R"({"id":4})")["error"]["code"], RpcError::kInvalidRequest);
  Cloud().Arrive("SN1/request", R"({"id":5,"method":"system.open"})", true);
  EXPECT_EQ(AskFromCloud(R"({"id":"fence","method":"system.open"})")["id"], "fence")
      << "nothing else was answered";
  EXPECT_TRUE(Local().sent.Items().empty()) << "requests and answers stay off the local broker";
  Cloud().sends = false;
  Local().Arrive("SN1/status", "x");
  EXPECT_TRUE(Logged("FWDP", "ForwarderPool: send failed, rc=-9"));
}

/// The largest request there is, of what takes most room when it is built: empty objects.
std::string LargestRequest(const std::string& method, const std::string& bulky) {
  std::string request = R"({"method":")" + method + R"(",")" + bulky + "\":[{}";
  while (request.size() < kMaxPayloadBytes - 14) request += ",{}";
  return request + (bulky == "id" ? "]}" : R"(],"id":1})");
}

TEST_F(CommsManagerTest, LargeRequestsTakeLittleMemoryHoweverLongTheyWait) {
  if (__sanitizer_get_current_allocated_bytes == nullptr) GTEST_SKIP() << "nobody counts bytes";
  InitCloud();
  const auto fifteen = [this](FakeMqttClient& client, const std::string& topic,
                              const std::string& method) {
    const auto gate = std::make_shared<std::latch>(1);
    const auto runs = std::make_shared<std::atomic<int>>(0);
    const auto handler = [gate, runs](const Json&) {
      ++*runs;
      gate->wait();
      return Json();
    };
    ASSERT_EQ(Register(method, 1, handler), CommsStatus::kOk);
    const size_t answers = client.sent.Items().size();
    const size_t before = __sanitizer_get_current_allocated_bytes();
    client.Arrive(topic, LargestRequest(method, "params"));
    ASSERT_TRUE(test::Eventually([&] { return *runs == 1; }));
    for (int i = 1; i < 15; ++i) client.Arrive(topic, LargestRequest(method, "id"));
    EXPECT_EQ(client.sent.WaitFor(answers + 6).size(), answers + 6) << "eight may wait";
    EXPECT_LT(__sanitizer_get_current_allocated_bytes(), before + (size_t{64} << 20U)) << method;
    gate->count_down();
    EXPECT_EQ(client.sent.WaitFor(answers + 15).size(), answers + 15);
  };
  fifteen(Local(), "camera/request", "camera.slow");
  fifteen(Local(), "system/request", "system.slow");
  fifteen(Cloud(), "SN1/request", "system.cloud");
}

TEST_F(CommsManagerTest, OneCloudClientKeepsItsRoutesAndAnotherDeviceTakesThem) {
  InitCloud();
  FakeMqttClient* const first = &Cloud();
  manager_.InitCloud("Another");
  ASSERT_EQ(manager_.ConnectCloud(endpoint_), CommsStatus::kOk);
  EXPECT_EQ(first, &Cloud());
  EXPECT_EQ(clients_.size(), 2U);
  EXPECT_EQ(AskFromCloud(R"({"id":1,"method":"system.open","params":2})")["result"], 2);
  ASSERT_EQ(manager_.SetupCloudForwarding("SN2"), CommsStatus::kOk);
  Cloud().Arrive("SN1/request", R"({"id":1,"method":"system.open"})");
  Local().Arrive("SN1/status", "old");
  Local().Arrive("SN2/status", "new");
  EXPECT_EQ(Cloud().sent.WaitFor(2).at(1).payload, "new");
  for (const char* bad : {"", "a/b", "+", "#", "$x", "--", "system", "camera", "mqtt_agent"}) {
    EXPECT_EQ(manager_.SetupCloudForwarding(bad), CommsStatus::kInvalidArgument) << bad;
  }
}

TEST_F(CommsManagerTest, ACloudRequestLivesAndDiesWithItsLink) {
  std::latch entered(1);
  std::latch gate(1);
  InitCloud();
  (void)Register("system.slow", 1, [&](const Json&) {
    entered.count_down();
    gate.wait();
    return Json();
  });
  Cloud().Arrive("SN1/request", R"({"id":1,"method":"system.slow"})");
  entered.wait();
  Cloud().Lose();
  Cloud().Arrive("SN1/request", R"({"id":2,"method":"system.open"})");
  EXPECT_TRUE(Logged("COMMS", "drop cloud request, its link has ended id: 2"));
  ASSERT_EQ(manager_.ConnectCloud(endpoint_), CommsStatus::kOk);
  gate.count_down();
  EXPECT_TRUE(Logged("COMMS", "cloud link has ended, no answer to system.slow (id=1)"));

  logging_out_ = true;
  Cloud().Arrive("SN1/request", R"({"id":3,"method":"system.open"})");
  EXPECT_TRUE(Logged("COMMS", "drop cloud request, logging out id: 3"));
  logging_out_ = false;
  EXPECT_EQ(AskFromCloud(R"({"id":4,"method":"system.open"})")["id"], 4);
  EXPECT_EQ(Cloud().sent.Items().size(), 1U) << "nothing else was answered";
  manager_.DisconnectCloud();
  using Kind = LinkEvent::Kind;
  EXPECT_EQ(events_.WaitFor(4),
            (std::vector{Kind::kConnected, Kind::kLost, Kind::kConnected, Kind::kEnded}));
}

TEST_F(CommsManagerTest, AStuckLocalLinkDoesNotCostTheCloudItsGoodbye) {
  InitCloud();
  bool told = false;
  Local().on_await_closed = [&] { told = Cloud().closed; };
  manager_.Stop();
  Local().on_await_closed = nullptr;
  EXPECT_TRUE(told);
  EXPECT_EQ(Code(manager_.ConnectCloud(endpoint_)), -8);
}

TEST_F(CommsManagerTest, AnOutageOfTheCloudIsTwoLinesAndACount) {
  InitCloud();
  Cloud().Lose();
  for (int i = 0; i < 3; ++i) Local().Arrive("SN1/status", "lost");
  EXPECT_TRUE(Logged("COMMS", "The cloud link is down, messages for it are dropped"));
  EXPECT_EQ(manager_.PublishCloud("SN1/notification", {}), CommsStatus::kNotConnected);
  ASSERT_EQ(manager_.ConnectCloud(endpoint_), CommsStatus::kOk);
  Local().Arrive("SN1/status", "kept");
  ASSERT_TRUE(test::Eventually([&] {
    const auto sent = Cloud().sent.Items();
    return !sent.empty() && sent.back().payload == "kept";
  }));
  // Those that were looked at after the link's return go over it.
  EXPECT_TRUE(
      log_.Has("COMMS", fmt::format("The cloud link is up again, {} messages for it were dropped",
                                    4 - Cloud().sent.Items().size())));
  EXPECT_EQ(log_.Count("COMMS", "The cloud link is down, messages for it are dropped"), 1U);
  EXPECT_EQ(log_.Text().find("send failed"), std::string::npos) << log_.Text();
}

TEST_F(CommsManagerTest, AsksAndTellsProgramsOnBothBrokers) {
  InitCloud();
  Local().on_send = [&] {
    const Json request = Json::parse(Local().sent.Items().back().payload);
    Local().Arrive("moonraker/response", Json({{"id", request["id"]}, {"result", "yes"}}).dump());
  };
  const auto ask = [&](std::chrono::milliseconds limit) {
    return manager_.CallLocal("moonraker/request", "server.info", {}, limit);
  };
  EXPECT_EQ(ask(std::chrono::seconds(20)).response["result"], "yes");
  EXPECT_EQ(ask(std::chrono::seconds(20)).status, CommsStatus::kOk);
  Local().on_send = nullptr;
  EXPECT_EQ(ask(std::chrono::milliseconds(1)).status, CommsStatus::kTimeout);
  EXPECT_EQ(Local().unsubscribed.Items(), std::vector<std::string>(3, "moonraker/response"))
      << "other programs' answers are not ours to read";
  EXPECT_EQ(manager_.PublishLocal("any/topic", {{"a", 1}}), CommsStatus::kOk);
  EXPECT_EQ(Local().sent.Items().back().payload, R"({"a":1})");
  EXPECT_EQ(manager_.PublishCloud("SN1/notification", "x"), CommsStatus::kOk);
  EXPECT_EQ(Cloud().sent.Items().back().qos, Qos::kAtLeastOnce);
}

TEST(ForwarderPoolTest, WhatCannotBeDeliveredIsDropped) {
  const test::LogCapture log;
  ForwarderPool pool;
  const auto queue = pool.CreateQueue("q");
  for (const char* payload : {"", "x"})
    pool.Forward(queue, std::make_shared<MqttMessage>(MqttMessage{"t", payload}), nullptr);
  EXPECT_TRUE(test::Eventually(
      [&] { return log.Has("FWDP", "ForwarderPool: null destination, dropping message"); }));
}

}  // namespace
}  // namespace varnel::comms

#include "comms/json_rpc_client.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/fake_mqtt_client.h"
#include "support/log_capture.h"

namespace varnel::comms {
namespace {

using std::chrono::milliseconds;
using test::FakeMqttClient;

class JsonRpcClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(client_.Bind(mqtt_, {"p/request", "p/response"}), CommsStatus::kOk);
  }

  test::LogCapture log_;
  std::shared_ptr<FakeMqttClient> mqtt_ = std::make_shared<FakeMqttClient>();
  JsonRpcClient client_{"caller"};
};

TEST_F(JsonRpcClientTest, ConcurrentCallsEachGetTheirOwnResponse) {
  JsonRpcClient::CallResult first{CommsStatus::kFailure, {}};
  JsonRpcClient::CallResult second{CommsStatus::kFailure, {}};
  {
    std::jthread a([&] { first = client_.Call("m", {{"k", 1}}, 1, milliseconds(20'000)); });
    std::jthread b([&] { second = client_.Call("m", {{"k", 2}}, "1", milliseconds(20'000)); });
    const auto sent = mqtt_->sent.WaitFor(2);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].topic, "p/request");
    EXPECT_EQ(Json::parse(sent[0].payload)["jsonrpc"], "2.0");
    mqtt_->Arrive("p/response", R"({"id":" \u0031","result":"another's"})");
    mqtt_->Arrive("p/response", R"({ "result" : "text id", "id" : "\u0031" })");
    mqtt_->Arrive("p/response", R"({"id":1,"error":{"code":-1,"message":"number id"}})");
  }
  EXPECT_EQ(first.response["error"]["message"], "number id");
  EXPECT_EQ(second.response["result"], "text id");
}

TEST_F(JsonRpcClientTest, ALateOrForeignResponseReachesNobody) {
  const auto timed_out = client_.Call("m", nullptr, 5, milliseconds(1));
  EXPECT_EQ(timed_out.status, CommsStatus::kTimeout);
  for (const char* payload :
       {R"({"id":5,"result":1})", R"({"result":1})", R"({"id":5})", "[]", "\"\xff\"", "{last"}) {
    mqtt_->Arrive("p/response", payload);
  }
  EXPECT_TRUE(test::Eventually([&] { return log_.Has("JRPCC", "parse error at byte 2"); }));
  EXPECT_TRUE(log_.Has("JRPCC", "Received a response that no one was waiting for, id 5"));
  EXPECT_TRUE(log_.Has("JRPCC", R"(Receive an invalid message without an id: {"result":1})"));
  EXPECT_TRUE(log_.Has("JRPCC", R"(Receive an invalid message: {"id":5})"));
  EXPECT_TRUE(log_.Has("JRPCC", R"(Receive an invalid message: [])"));
}

TEST_F(JsonRpcClientTest, FailuresAreReportedAtOnce) {
  mqtt_->sends = false;
  EXPECT_NE(client_.Call("m", nullptr, 6, milliseconds(20'000)).status, CommsStatus::kOk);
  EXPECT_NE(client_.Notify("m", nullptr), CommsStatus::kOk);
  EXPECT_NE(client_.Bind(mqtt_, {"p/request", ""}), CommsStatus::kOk);

  JsonRpcClient unbound("unbound");
  EXPECT_NE(unbound.Bind(nullptr, {}), CommsStatus::kOk);
  EXPECT_NE(unbound.Notify("m", nullptr), CommsStatus::kOk);
}

TEST_F(JsonRpcClientTest, AResponseAfterTheDeadlineIsDropped) {
  mqtt_->on_send = [this] {  // the deadline has passed, but the caller has not looked yet
    mqtt_->Arrive("p/response", R"({"id":1,"result":1})");
    EXPECT_TRUE(test::Eventually(
        [&] { return log_.Has("JRPCC", "Response time has exceeded the validity period, id 1"); }));
  };
  EXPECT_EQ(client_.Call("m", nullptr, 1, milliseconds(-1)).status, CommsStatus::kTimeout);
}

TEST_F(JsonRpcClientTest, WithoutAResponseTopicItSubscribesToNothingAndOnlyNotifies) {
  (void)mqtt_->Connect({});
  JsonRpcClient notifier("n");
  ASSERT_EQ(notifier.Bind(mqtt_, {"system/notification", ""}), CommsStatus::kOk);
  EXPECT_TRUE(mqtt_->subscribed.Items().empty());
  EXPECT_EQ(notifier.Notify("notify_x", {{"a", 1}}), CommsStatus::kOk);
  EXPECT_EQ(Json::parse(mqtt_->sent.Items().at(0).payload),
            Json::parse(R"({"jsonrpc":"2.0","method":"notify_x","params":{"a":1}})"));
  EXPECT_EQ(notifier.Call("m", nullptr, 1, milliseconds(1)).status, CommsStatus::kUnsupported);
}

}  // namespace
}  // namespace varnel::comms

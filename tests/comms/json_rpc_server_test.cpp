#include "comms/json_rpc_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>

#include "support/eventually.h"
#include "support/fake_mqtt_client.h"
#include "support/log_capture.h"

namespace varnel::comms {
namespace {

using test::FakeMqttClient;
using test::LogCapture;

class JsonRpcServerTest : public ::testing::Test {
 protected:
  JsonRpcServerTest() {
    Register("system.echo", [](const Json& params) { return params; });
    Register("system.throw", [](const Json&) -> Json { throw std::runtime_error("boom"); });
    EXPECT_EQ(server_.BindMqtt(client_, {"system/request", "system/response"}), CommsStatus::kOk);
    EXPECT_EQ(server_.BindMqtt(client_, {"mute/+", ""}), CommsStatus::kOk);
  }

  void Register(const std::string& method, RpcHandler handler,
                MethodKind kind = MethodKind::kQuick) {
    EXPECT_EQ(server_.RegisterMethod(method, kind, std::move(handler)), CommsStatus::kOk);
  }
  /// The answer to one request; the echo behind it shows that nothing else came.
  Json Ask(const std::string& payload) {
    const size_t before = client_->sent.Items().size();
    client_->Arrive("system/request", payload);
    const auto sent = client_->sent.WaitFor(before + 1);
    if (sent.size() != before + 1) return "no answer";
    EXPECT_EQ(sent.back().topic, "system/response");
    EXPECT_EQ(sent.back().qos, Qos::kAtMostOnce);
    EXPECT_FALSE(sent.back().retain);
    return Json::parse(sent.back().payload);
  }
  /// Sends what must stay unanswered, then proves that the next request is the next answer.
  void ExpectSilence(const std::string& payload, bool retained = false) {
    const size_t before = client_->sent.Items().size();
    client_->Arrive("system/request", payload, retained);
    EXPECT_EQ(Ask(R"({"method":"system.echo","id":"fence"})")["id"], "fence") << payload;
    EXPECT_EQ(client_->sent.Items().size(), before + 1) << payload;
  }

  LogCapture log_;
  std::shared_ptr<FakeMqttClient> client_ = std::make_shared<FakeMqttClient>();
  JsonRpcServer server_{"local_srv"};
};

TEST_F(JsonRpcServerTest, WhatFollowsAnAnswerComesAfterIt) {
  std::latch done(1);
  size_t sent = 0;
  EXPECT_EQ(server_.RegisterMethod(
                "system.tell", MethodKind::kQuick, [](const Json& params) { return params; },
                [&](const Json& answer) {
                  if (answer == Json{{"a", 1}}) sent = client_->sent.Items().size();
                  done.count_down();
                }),
            CommsStatus::kOk);
  client_->Arrive("system/request", R"({"id":1,"method":"system.tell","params":{"a":1}})");
  done.wait();
  EXPECT_EQ(sent, 1U);
}

TEST_F(JsonRpcServerTest, EchoesIdsOfEveryJsonTypeAsTheSameValue) {
  for (const char* id :
       {"-7", "0", "18446744073709551615", "-9223372036854775808", "-9223372036854775809", "5e-324",
        "123456789012345678901234567890", "\"\"", R"("\u0000\n\"\\\ud83d\udcf7é")", "null", "true",
        "[]", "[1 , [2]] ", "{}", " {\"id\":{\"method\":null}}\n", "7 "}) {
    const Json answer =
        Ask(std::string(R"({"jsonrpc":"2.0","method":"system.echo","id":)") + id + "}");
    EXPECT_EQ(answer["id"], Json::parse(id));
    EXPECT_EQ(answer["jsonrpc"], "2.0");
    EXPECT_TRUE(answer.contains("result") && answer["result"].is_null())
        << "absent params are null";
  }
  EXPECT_EQ(Ask(R"({"method":"system.echo","id":18446744073709551616})")["id"],
            18446744073709551616.0);
  EXPECT_EQ(Ask(R"({"method":"system.echo","id":)" + std::string(63, '[') + std::string(63, ']') +
                "}")["id"]
                .dump(),
            std::string(63, '[') + std::string(63, ']'));
}

TEST_F(JsonRpcServerTest, AnswersErrorsAndResults) {
  EXPECT_EQ(
      Ask(R"({"method":"system.none","id":7})"),
      Json::parse(R"({"jsonrpc":"2.0","id":7,"error":{"code":-32601,"message":"Method not found",
                            "data":"Method not found: system.none"}})"));
  EXPECT_EQ(Ask(R"({"method":"system.throw","id":7})")["error"],
            Json::parse(R"({"code":-32603,"message":"Internal error"})"));
  EXPECT_EQ(
      Ask(R"({"method":"system.echo","id":1,"params":{"code":-32602,"message":"m"}})")["error"]
                                                                                      ["code"],
      -32602);
  EXPECT_EQ(Ask(R"({"jsonrpc":"1.0","method":"system.echo","id":1,"params":[2]})")["result"],
            Json::parse("[2]"));
  EXPECT_EQ(Ask("\xEF\xBB\xBF"
                R"({"id":1,"id":2,"params":{"id":3},"params":[4,{"id":5,"method":"y"}],"method":7,
                    "method":"system.echo"})"),
            Json::parse(R"({"jsonrpc":"2.0","id":2,"result":[4,{"id":5,"method":"y"}]})"))
      << "the last of equal keys counts";
}

TEST_F(JsonRpcServerTest, ARequestWhoseTopicNamesNoAnswersIsServedInSilence) {
  client_->Arrive("mute/x", R"({"method":"system.echo","id":1})");
  ExpectSilence(R"({"method":"system.none"})");
  // Another worker may have been faster with the fence.
  EXPECT_TRUE(test::Eventually([&] { return log_.Has("JRPCS", "Unsupported operation"); }))
      << "never an answer on the request's own topic";
}

TEST_F(JsonRpcServerTest, StaysSilentAboutWhatCannotBeAnswered) {
  for (const char* payload :
       {"{", "[]", "7", R"({"id":1})", R"({"id":1,"method":"system.echo","method":7})",
        R"([{"method":"system.echo","id":1}])", R"({"method":"system.echo","id":1} {})",
        R"({"method":"system.echo","id":"\ud800"})", R"({"method":"system.none"})",
        R"({"method":"system.throw"})"}) {
    ExpectSilence(payload);
  }
  ExpectSilence(R"({"method":"system.echo","id":1})", true);
  EXPECT_TRUE(log_.Has("JRPCS", "Ignore a retained request on topic system/request"));
}

TEST_F(JsonRpcServerTest, CommandsRunInTheOrderInWhichTheyCame) {
  std::vector<int> order;
  for (const char* method : {"camera.start", "camera.stop"})
    Register(
        method,
        [&](const Json& params) {
          order.push_back(params.get<int>());
          return Json();
        },
        MethodKind::kCommand);
  std::vector<int> sent;
  for (int i = 0; i < 100; ++i) {
    const char* method = i % 2 == 0 ? "camera.start" : "camera.stop";
    client_->Arrive("system/request", Json({{"method", method}, {"params", i}, {"id", i}}).dump());
    sent.push_back(i);
  }
  (void)client_->sent.WaitFor(100);
  EXPECT_EQ(order, sent);
}

TEST_F(JsonRpcServerTest, AFloodIsRefusedBeyondTheBacklog) {
  constexpr size_t kWorkers = WorkerLane::WorkersFor(MethodKind::kListing);
  auto entered = std::make_shared<std::latch>(kWorkers);
  // Shared: what still waits when the test ends is run by the server's destructor or dropped.
  auto gate = std::make_shared<std::latch>(1);
  auto ran = std::make_shared<std::atomic<size_t>>(0);
  Register(
      "system.slow",
      [entered, gate, ran](const Json&) {
        if ((*ran)++ < kWorkers) entered->count_down();
        gate->wait();
        return Json();
      },
      MethodKind::kListing);
  const auto invoke = [this](const std::string& request) {
    server_.InvokeMethod("system.slow", std::get<JsonRpcEnvelope>(JsonRpcEnvelope::Read(request)),
                         nullptr);
  };
  for (size_t i = 0; i < kWorkers; ++i) invoke(R"({"id":1})");
  entered->wait();
  for (size_t i = 0; i < BoundedPool::kMaxWaiting; ++i) invoke("{}");
  EXPECT_EQ(Ask(R"({"method":"system.slow","id":9})")["error"],
            Json::parse(R"({"code":-32000,"message":"Server busy"})"));
  client_->Arrive("system/request", R"({"method":"system.slow"})");
  EXPECT_EQ(Ask(R"({"method":"system.echo","params":1,"id":10})")["result"], 1)
      << "a refused notification is not answered, and another kind still serves";
  gate->count_down();
}

TEST_F(JsonRpcServerTest, RegistrationAndBindingRefuseWhatCannotWork) {
  const auto add = [this](const char* method, const RpcHandler& handler) {
    return server_.RegisterMethod(method, MethodKind::kQuick, handler);
  };
  const auto nothing = [](const Json&) { return Json(); };
  EXPECT_EQ(add("", nothing), CommsStatus::kInvalidArgument);
  EXPECT_EQ(add("m", nullptr), CommsStatus::kInvalidArgument);
  EXPECT_NE(add("system.echo", nothing), CommsStatus::kOk);
  EXPECT_NE(server_.BindMqtt(nullptr, {"a", "b"}), CommsStatus::kOk);
  EXPECT_NE(server_.BindMqtt(std::make_shared<FakeMqttClient>(), {"a", "b"}), CommsStatus::kOk);
  (void)client_->Connect({});
  client_->subscribes = false;
  EXPECT_NE(server_.BindMqtt(client_, {"x/request", ""}), CommsStatus::kOk);
}

TEST_F(JsonRpcServerTest, AnAnswerThatCannotBeSentIsLogged) {
  client_->sends = false;
  client_->Arrive("system/request", R"({"method":"system.none","id":1})");
  EXPECT_TRUE(test::Eventually(
      [&] { return log_.Has("JRPCS", "Failed to send response to system/response"); }));
}

}  // namespace
}  // namespace varnel::comms

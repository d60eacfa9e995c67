// The cloud side of the communication manager between two real brokers: the board's and one with
// TLS that demands client certificates.
#include <gmock/gmock.h>

#include <map>

#include "board/cloud_side.h"
#include "board/run_inside.h"
#include "comms/client_mqtt_async.h"
#include "comms/comms_manager.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "virtual_board/client/board.h"

namespace varnel::board {
namespace {

using comms::CommsStatus;
using comms::Json;
using comms::MqttConnectSettings;
using comms::Qos;
using test::Eventually;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

CloudSide& Cloud() {
  static CloudSide cloud;
  return cloud;
}

BrokerSpy& CloudSpy() {
  static BrokerSpy spy("spy-cloud", CloudSide::ClientOptions());
  return spy;
}

BrokerSpy& LocalSpy() {
  static BrokerSpy spy("spy-local", {"-p", "1883"});
  return spy;
}

/// A manager between the two brokers, each test with a device of its own. The routes are in force
/// before a test begins.
class CloudLinkTest : public testing::Test {
 protected:
  CloudLinkTest() : sn_(testing::UnitTest::GetInstance()->current_test_info()->name()) {
    Cloud();
    CloudSpy();
    LocalSpy();
    manager_.SetSerialNumberProvider([this] { return sn_; });
    EXPECT_EQ(manager_.InitLocal(), CommsStatus::kOk);
    Register("system.echo", 1);
    Register("mqtt_agent.inner", 0);
    manager_.InitCloud("Varnel Cloud");
    manager_.SetCloudEventCallback([this](const comms::LinkEvent& event) { events_.Put(event); });
    (void)manager_.ConnectLocal("127.0.0.1", "1883", "cloud-link-test");
    StartCloud("ca.crt");
    (void)local_program_.Connect(
        {.host = "127.0.0.1", .port = "1883", .client_id = "local-program"});
    (void)cloud_program_.Connect(CloudSide::Settings("cloud-program"));
    EXPECT_TRUE(Eventually([&] {
      return manager_.IsLocalConnected() && manager_.IsCloudConnected() &&
             local_program_.IsConnected() && cloud_program_.IsConnected();
    }));
    SetUpRoutes();
  }
  ~CloudLinkTest() override {
    manager_.Stop();
    EXPECT_EQ(CloudSide::SecretIn(log_.Text()), std::nullopt);
  }

  void Register(const std::string& method, uint32_t flag) {
    const auto handler = [this, method](const Json& params) {
      runs_.Put(method);
      return params;
    };
    EXPECT_EQ(manager_.RegisterMethod(method, flag, comms::MethodKind::kQuick, handler),
              CommsStatus::kOk);
  }
  void StartCloud(const std::string& root_ca) {
    const MqttConnectSettings link = CloudSide::Settings("device-" + sn_);
    (void)manager_.ConnectCloud({.host = link.host,
                                 .port = link.port,
                                 .client_id = link.client_id,
                                 .client_certificate = link.client_certificate,
                                 .client_key = link.client_key,
                                 .root_ca = CloudSide::File(root_ca)});
  }
  /// Subscriptions and what is published after them stay in order, so a message that has gone all
  /// the way proves every route before it.
  void SetUpRoutes() {
    ASSERT_EQ(manager_.SetupCloudForwarding(sn_), CommsStatus::kOk);
    const std::string fence = "routes" + std::to_string(++fences_);
    EXPECT_EQ(manager_.SendNotification("fence/" + sn_, fence, {}), CommsStatus::kOk);
    EXPECT_TRUE(Eventually([&] { return LocalSpy().Seen("fence/" + sn_).size() == fences_; }));
    SpyFence();
  }
  /// Everything published locally before has passed both spies.
  void SpyFence() {
    const std::string fence = "fence" + std::to_string(++sent_fences_);
    Publish("status", fence);
    EXPECT_TRUE(CloudSpy().WaitFor(sn_ + "/status", fence));
    EXPECT_TRUE(LocalSpy().WaitFor(sn_ + "/status", fence));
  }
  void Publish(const std::string& stream, const std::string& payload, bool retain = false) {
    EXPECT_EQ(local_program_.Send(sn_ + "/" + stream, Qos::kAtLeastOnce, retain, payload),
              CommsStatus::kOk);
  }
  void Ask(const std::string& payload, const std::string& topic = "request") {
    EXPECT_EQ(cloud_program_.Send(sn_ + "/" + topic, Qos::kAtLeastOnce, false, payload),
              CommsStatus::kOk);
  }
  bool Logged(const std::string& text) const { return log_.Text().find(text) != std::string::npos; }
  /// Of this device, without the fences.
  std::vector<SpiedMessage> Seen(BrokerSpy& spy, const std::string& stream) const {
    auto seen = spy.Seen(sn_ + "/" + stream);
    std::erase_if(seen, [](const auto& message) { return message.payload.starts_with("fence"); });
    return seen;
  }

  const std::string sn_;
  size_t fences_ = 0;
  size_t sent_fences_ = 0;
  test::LogCapture log_;
  test::Mailbox<std::string> runs_;
  test::Mailbox<comms::LinkEvent> events_;
  comms::CommsManager manager_;
  comms::ClientMqttAsync local_program_{"Local program"};
  comms::ClientMqttAsync cloud_program_{"Cloud program"};
};

TEST_F(CloudLinkTest, RequestsRunOnceAndAreAnsweredOnce) {
  SetUpRoutes();
  Ask(R"({"jsonrpc":"2.0","id":1,"method":"system.echo","params":{"a":2}})");
  Ask(R"({"jsonrpc":"2.0","id":2,"method":"mqtt_agent.inner"})");
  Ask(R"({"jsonrpc":"2.0","id":3,"method":"system.none"})");
  Ask(R"({"jsonrpc":"2.0","method":"system.echo"})");
  Ask("{no json");
  (void)cloud_program_.Send("system/config/" + sn_ + "/request", Qos::kAtLeastOnce, false,
                            R"({"id":4,"method":"system.echo"})");
  Ask(R"({"jsonrpc":"2.0","id":"last","method":"system.echo","params":")" + std::string(500, 'x') +
      "\"}");
  ASSERT_TRUE(Eventually([&] { return Seen(CloudSpy(), "response").size() == 4; })) << log_.Text();
  SpyFence();

  std::map<std::string, Json> answers;
  for (const SpiedMessage& answer : Seen(CloudSpy(), "response")) {
    const Json json = Json::parse(answer.payload);
    answers[json["id"].dump()] = json;
    EXPECT_EQ(answer.qos, 1);
    EXPECT_FALSE(answer.retain);
  }
  ASSERT_EQ(answers.size(), 4U);
  EXPECT_EQ(answers["1"]["result"], Json({{"a", 2}}));
  for (const auto& [id, method] : {std::pair("2", "mqtt_agent.inner"), {"3", "system.none"}}) {
    EXPECT_EQ(answers[id]["error"]["code"], -32601);
    EXPECT_EQ(answers[id]["error"]["data"], std::string("Method not found: ") + method);
  }
  EXPECT_TRUE(answers.contains("\"last\""));
  EXPECT_EQ(runs_.Items(), std::vector<std::string>(3, "system.echo"));
  EXPECT_TRUE(Seen(LocalSpy(), "re").empty()) << "requests and answers stay off the local broker";
  EXPECT_TRUE(log_.Has("COMMS", R"(cloud config req: {"id":4,"method":"system.echo"})"));
  EXPECT_THAT(log_.Text(), HasSubstr("cloud request dispatch failed: "));
  EXPECT_THAT(log_.Text(), Not(HasSubstr(std::string(160, 'x'))));
}

TEST_F(CloudLinkTest, LocalMessagesReachTheCloudUnchangedAndOnce) {
  SetUpRoutes();
  std::string large(size_t{2} << 20U, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 2654435761U >> 13U);
  for (const std::string stream : {"response", "status", "notification"}) {
    const std::vector<std::string> payloads = {std::string("\0\xff no text\n", 11), "x", large,
                                               std::string(500, 'y')};
    std::vector<SpiedMessage> expected;
    for (const std::string& payload : payloads) {
      Publish(stream, payload);
      expected.push_back({sn_ + "/" + stream, 1, false, payload});
    }
    ASSERT_TRUE(Eventually([&] { return Seen(CloudSpy(), stream).size() >= payloads.size(); }));
    SpyFence();
    EXPECT_TRUE(Seen(CloudSpy(), stream) == expected) << stream;
    EXPECT_TRUE(Seen(LocalSpy(), stream) == expected) << stream << " came back";
  }
  EXPECT_THAT(log_.Text(), HasSubstr("local → cloud response: " + std::string(160, 'y') + "\n"));
  EXPECT_THAT(log_.Text(), HasSubstr("local → cloud notification: "));
  EXPECT_THAT(log_.Text(), Not(HasSubstr(std::string(161, 'y'))));
}

TEST_F(CloudLinkTest, ARetainedMessageIsForwardedOnceHoweverOftenTheRoutesAreSet) {
  Publish("status", "kept", true);
  ASSERT_TRUE(CloudSpy().WaitFor(sn_ + "/status", "kept"));
  SetUpRoutes();
  SetUpRoutes();
  Publish("status", "", true);
  EXPECT_EQ(Seen(CloudSpy(), "status"),
            (std::vector<SpiedMessage>{{sn_ + "/status", 1, false, "kept"}}));
}

TEST_F(CloudLinkTest, ABurstArrivesWholeAndInOrder) {
  std::vector<std::string> expected;
  for (int i = 0; i < 300; ++i) {
    expected.push_back(std::to_string(i));
    Publish("notification", expected.back());
  }
  EXPECT_TRUE(Eventually([&] { return Seen(CloudSpy(), "notification").size() >= 300; }));
  std::vector<std::string> seen;
  for (const SpiedMessage& message : Seen(CloudSpy(), "notification")) {
    seen.push_back(message.payload);
  }
  EXPECT_THAT(seen, ElementsAreArray(expected));
}

TEST_F(CloudLinkTest, RoutesComeBackWithTheBrokerAndAfterARefusal) {
  Cloud().Kill();
  ASSERT_TRUE(Eventually([&] { return !manager_.IsCloudConnected(); }));
  Publish("status", "lost");
  Cloud().Start();
  StartCloud("foreign-ca.crt");
  EXPECT_TRUE(Eventually([&] { return Logged("Varnel Cloud: connection failed, rc: "); }));
  EXPECT_THAT(events_.WaitFor(3).back().text, HasSubstr("certificate verify failed"));
  EXPECT_FALSE(manager_.IsCloudConnected());
  StartCloud("ca.crt");
  EXPECT_TRUE(Eventually([&] { return manager_.IsCloudConnected(); }));
  using Kind = comms::LinkEvent::Kind;
  std::vector<Kind> kinds;
  for (const auto& event : events_.WaitFor(4)) kinds.push_back(event.kind);
  EXPECT_EQ(kinds, (std::vector{Kind::kConnected, Kind::kLost, Kind::kFailed, Kind::kConnected}));
  CloudSpy().AwaitReady();
  SetUpRoutes();
  Publish("status", "after");
  EXPECT_TRUE(CloudSpy().WaitFor(sn_ + "/status", "after"));
  EXPECT_EQ(Seen(CloudSpy(), "status").size(), 1U);
}

}  // namespace
}  // namespace varnel::board

int main(int argc, char** argv) {
  return varnel::board::RunInsideBoard(argc, argv, varnel::board::BootOptions());
}

// The cloud side of the communication manager between two real brokers: the board's and one with
// TLS that demands client certificates.
#include <gmock/gmock.h>

#include <array>
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
using comms::MqttConnectSettings;
using comms::Qos;
using test::Eventually;
using testing::HasSubstr;
using Texts = std::vector<std::string>;

CloudSide& Cloud() {
  static CloudSide cloud;
  return cloud;
}

/// A program on one of the brokers: what it publishes, and what passes there on a device's topics.
class Program {
 public:
  Program(const std::string& name, const MqttConnectSettings& settings) : client_(name) {
    (void)client_.Connect(settings);
  }

  void Watch(const std::string& topic) {
    EXPECT_EQ(client_.AddListener(
                  topic, [&box = seen_[topic]](const auto& message) { box.Put(message->payload); }),
              CommsStatus::kOk);
  }
  void Publish(const std::string& topic, const std::string& payload) {
    EXPECT_EQ(client_.Send(topic, Qos::kAtLeastOnce, false, payload), CommsStatus::kOk);
  }
  bool IsConnected() const { return client_.IsConnected(); }
  bool Reconnected() {
    return Eventually([this] {
      (void)client_.Reconnect();
      return Eventually([this] { return IsConnected(); }, std::chrono::seconds(2));
    });
  }
  test::Mailbox<std::string>& Seen(const std::string& topic) { return seen_[topic]; }

 private:
  std::map<std::string, test::Mailbox<std::string>> seen_;
  comms::ClientMqttAsync client_;
};

/// A manager between the two brokers, each test with a device of its own.
class CloudLinkTest : public testing::Test {
 protected:
  CloudLinkTest() : sn_(testing::UnitTest::GetInstance()->current_test_info()->name()) {
    EXPECT_EQ(manager_.InitLocal(), CommsStatus::kOk);
    EXPECT_EQ(manager_.RegisterMethod("system.echo", 1, comms::MethodKind::kQuick,
                                      [](const comms::Json& params) { return params; }),
              CommsStatus::kOk);
    manager_.InitCloud("Varnel Cloud");
    manager_.SetCloudEventCallback([this](const comms::LinkEvent& event) { events_.Put(event); });
    (void)manager_.ConnectLocal("127.0.0.1", "1883", "cloud-link-test");
    StartCloud("ca.crt");
    EXPECT_TRUE(Eventually([&] {
      return manager_.IsLocalConnected() && manager_.IsCloudConnected() &&
             local_program_.IsConnected() && cloud_program_.IsConnected();
    }));
    for (const char* stream : kStreams) {
      local_program_.Watch(Topic(stream));
      cloud_program_.Watch(Topic(stream));
    }
    SetUpRoutes();
  }
  ~CloudLinkTest() override {
    manager_.Stop();
    EXPECT_EQ(CloudSide::SecretIn(log_.Text()), std::nullopt);
  }

  std::string Topic(const std::string& stream) const { return sn_ + "/" + stream; }
  void StartCloud(const std::string& root_ca) {
    const MqttConnectSettings link = CloudSide::Settings("device-" + sn_);
    (void)manager_.ConnectCloud({.host = link.host,
                                 .port = link.port,
                                 .client_id = link.client_id,
                                 .client_certificate = link.client_certificate,
                                 .client_key = link.client_key,
                                 .root_ca = CloudSide::File(root_ca)});
  }
  /// Returns when they are in force: the subscription for notifications is the last.
  void SetUpRoutes() {
    ASSERT_EQ(manager_.SetupCloudForwarding(sn_), CommsStatus::kOk);
    const std::string fence = "fence " + std::to_string(++fences_);
    EXPECT_TRUE(Eventually([&] {
      local_program_.Publish(Topic("notification"), fence);
      const Texts seen = cloud_program_.Seen(Topic("notification")).Items();
      return !seen.empty() && seen.back() == fence;
    }));
  }

  /// Of a cloud that is there.
  static MqttConnectSettings CloudSettings() {
    Cloud();
    return CloudSide::Settings("cloud-program");
  }

  static constexpr std::array kStreams = {"response", "status", "notification"};
  const std::string sn_;
  int fences_ = 0;
  test::LogCapture log_;
  test::Mailbox<comms::LinkEvent> events_;
  comms::CommsManager manager_;
  Program local_program_{"Local program",
                         {.host = "127.0.0.1", .port = "1883", .client_id = "local-program"}};
  Program cloud_program_{"Cloud program", CloudSettings()};
};

TEST_F(CloudLinkTest, RequestsAreAnsweredAndLocalMessagesPassUnchangedInOrderAndOnce) {
  cloud_program_.Publish(Topic("request"),
                         R"({"jsonrpc":"2.0","id":1,"method":"system.echo","params":{"a":2}})");
  const Texts answers = cloud_program_.Seen(Topic("response")).WaitFor(1);
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(comms::Json::parse(answers[0])["result"], comms::Json({{"a", 2}}));
  SetUpRoutes();
  std::string large(size_t{2} << 20U, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 2654435761U >> 13U);
  Texts payloads = {std::string("\0\xff no text\n", 11), large};
  for (int i = 0; i < 100; ++i) payloads.push_back(std::to_string(i));
  for (const char* stream : {"response", "status"}) {
    for (const std::string& payload : payloads) local_program_.Publish(Topic(stream), payload);
    Texts expected = payloads;
    if (stream == kStreams[0]) expected.insert(expected.begin(), answers[0]);
    EXPECT_TRUE(cloud_program_.Seen(Topic(stream)).WaitFor(expected.size()) == expected) << stream;
  }
  SetUpRoutes();  // whatever came twice, or came back, has come now
  EXPECT_EQ(cloud_program_.Seen(Topic("status")).Items().size(), payloads.size());
  for (const char* stream : {"response", "status"})
    EXPECT_TRUE(local_program_.Seen(Topic(stream)).Items() == payloads) << stream;
}

TEST_F(CloudLinkTest, RoutesComeBackWithTheBrokerAndAfterARefusal) {
  Cloud().Kill();
  ASSERT_TRUE(Eventually([&] { return !manager_.IsCloudConnected(); }));
  local_program_.Publish(Topic("status"), "lost");
  Cloud().Start();
  StartCloud("foreign-ca.crt");
  EXPECT_THAT(events_.WaitFor(3).back().text, HasSubstr("certificate verify failed"));
  EXPECT_FALSE(manager_.IsCloudConnected());
  StartCloud("ca.crt");
  EXPECT_TRUE(Eventually([&] { return manager_.IsCloudConnected(); }));
  using Kind = comms::LinkEvent::Kind;
  std::vector<Kind> kinds;
  for (const auto& event : events_.WaitFor(4)) kinds.push_back(event.kind);
  EXPECT_EQ(kinds, (std::vector{Kind::kConnected, Kind::kLost, Kind::kFailed, Kind::kConnected}));
  EXPECT_TRUE(cloud_program_.Reconnected());
  local_program_.Publish(Topic("status"), "after");
  EXPECT_EQ(cloud_program_.Seen(Topic("status")).WaitFor(1), Texts{"after"});
}

}  // namespace
}  // namespace varnel::board

int main(int argc, char** argv) {
  return varnel::board::RunInsideBoard(argc, argv, varnel::board::BootOptions());
}

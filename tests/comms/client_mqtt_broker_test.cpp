// Both clients against a real broker: the same stories for the asynchronous and the synchronous
// one.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <random>
#include <thread>

#include "comms/client_mqtt_async.h"
#include "comms/client_mqtt_sync.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/mosquitto.h"

namespace varnel::comms {
namespace {

using std::chrono::milliseconds;
using test::Mosquitto;

/// The broker and the library tell nobody when they are done: asking again after a moment is the
/// only way.
bool Eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 4000 && !done(); ++i) std::this_thread::sleep_for(milliseconds(5));
  return done();
}

size_t CountEntries(const char* directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

struct Kind {
  const char* name;
  std::function<std::shared_ptr<ClientMqttBase>(const std::string&, Qos)> make;
};

template <class Client>
std::shared_ptr<ClientMqttBase> Make(const std::string& name, Qos qos) {
  return std::make_shared<Client>(name, qos);
}

class MqttBrokerTest : public ::testing::TestWithParam<Kind> {
 protected:
  std::shared_ptr<ClientMqttBase> NewClient(const std::string& id, Qos qos = Qos::kAtMostOnce) {
    auto client = GetParam().make(id, qos);
    client->SetConnectionLostCallback([this] { lost_.Put(1); });
    return client;
  }
  MqttConnectSettings Settings(const std::string& id) {
    return {.host = "127.0.0.1", .port = broker_.Port(), .client_id = id, .connect_timeout_s = 3};
  }
  ClientMqttBase::Listener Into(test::Mailbox<std::string>& box) {
    return [&box](const std::shared_ptr<MqttMessage>& message) {
      box.Put(message->topic + "=" + message->payload);
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
      const auto items = box.WaitFor(box.Items().size() + 1, std::chrono::seconds(0));
      return std::find(items.begin(), items.end(), topic + "=" + payload) != items.end();
    });
  }

  test::LogCapture log_;
  Mosquitto broker_;
  test::Mailbox<int> lost_;
  test::Mailbox<std::string> box_;
};

TEST_P(MqttBrokerTest, DeliversByFilterAlsoToListenersAddedLater) {
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
  client->Disconnect();
  EXPECT_FALSE(client->IsConnected());
  EXPECT_NE(client->Send("q1", Qos::kAtMostOnce, false, "x"), CommsStatus::kOk);
}

TEST_P(MqttBrokerTest, AProxyInTheEnvironmentChangesNothing) {
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  const auto client = NewClient("p");
  unsetenv("http_proxy");
  EXPECT_TRUE(ConnectAndWait(*client, "p"));
}

TEST_P(MqttBrokerTest, ComesBackAfterTheBrokerDied) {
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
    }));
    EXPECT_TRUE(Reaches(*client, "t", std::to_string(round), box_));
  }
}

TEST_P(MqttBrokerTest, ReportsHostsThatNeverAnswer) {
  const test::DeafListener deaf(8);
  const auto client = NewClient("d");
  auto settings = Settings("d");
  settings.port = std::to_string(deaf.Port());
  settings.connect_timeout_s = 1;
  (void)client->Connect(settings);
  EXPECT_EQ(lost_.WaitFor(1).size(), 1U) << "a broker that accepts and says nothing";
  settings.host = "no-such-host.invalid";
  (void)client->Connect(settings);
  EXPECT_EQ(lost_.WaitFor(2).size(), 2U);
  EXPECT_TRUE(ConnectAndWait(*client, "d"));
}

TEST_P(MqttBrokerTest, ReportsABrokerThatVanishesInMidConnect) {
  test::DeafListener vanishing(8);
  const auto client = NewClient("v");
  auto settings = Settings("v");
  settings.port = std::to_string(vanishing.Port());
  settings.connect_timeout_s = 2;
  std::jthread broker([&] { close(accept(vanishing.Fd(), nullptr, nullptr)); });
  (void)client->Connect(settings);
  EXPECT_EQ(lost_.WaitFor(1).size(), 1U);
  EXPECT_TRUE(ConnectAndWait(*client, "v"));
}

INSTANTIATE_TEST_SUITE_P(Clients, MqttBrokerTest,
                         ::testing::Values(Kind{"Async", Make<ClientMqttAsync>},
                                           Kind{"Sync", Make<ClientMqttSync>}),
                         [](const auto& param) { return param.param.name; });

/// Connects, breaks and destroys in every state; what the library leaks or touches late shows under
/// the sanitizers.
TEST(MqttCycles, AThousandConnectReconnectAndDestroyCycles) {
  test::LogCapture log;
  Mosquitto broker;
  test::DeafListener silent(128);
  test::DeafListener vanishing(128);
  std::atomic<bool> ended{false};
  std::jthread vanish([&] {
    while (!ended) {
      const int fd = accept(vanishing.Fd(), nullptr, nullptr);
      if (fd >= 0) close(fd);
    }
  });
  const std::string ports[] = {broker.Port(), std::to_string(test::FreePort()),
                               std::to_string(silent.Port()), std::to_string(vanishing.Port())};
  std::mt19937 random(7);
  const size_t descriptors = CountEntries("/proc/self/fd");
  // With another client alive the library's threads live on; they end, slowly, with the last one:
  // in every tenth cycle.
  std::shared_ptr<ClientMqttAsync> other;
  for (int cycle = 0; cycle < 1000; ++cycle) {
    if (cycle % 10 == 0) other.reset();
    if (cycle % 10 == 1) {
      other = std::make_shared<ClientMqttAsync>("other");
      (void)other->Connect({.host = "127.0.0.1", .port = broker.Port(), .client_id = "other"});
    }
    auto client = std::make_shared<ClientMqttAsync>("cycle");
    (void)client->AddListener("t", [](const std::shared_ptr<MqttMessage>&) {});
    (void)client->Connect({.host = "127.0.0.1",
                           .port = ports[cycle % 4],
                           .client_id = "c" + std::to_string(cycle),
                           .connect_timeout_s = 1});
    std::this_thread::sleep_for(
        std::chrono::microseconds(random() % 4000));  // any moment of the attempt
    if (cycle % 3 == 0) (void)client->Reconnect();
    if (cycle % 8 == 0) Eventually([&] { return client->IsConnected(); });
    (void)client->Send("t", Qos::kAtMostOnce, false, "x");
    if (cycle % 2 == 0) client->Disconnect();
  }
  other.reset();
  EXPECT_TRUE(Eventually([&] { return CountEntries("/proc/self/fd") <= descriptors + 2; }));
  ended = true;
  const int wake = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = test::Loopback(vanishing.Port());
  (void)connect(wake, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  close(wake);
}

}  // namespace
}  // namespace varnel::comms

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <latch>
#include <random>
#include <thread>

#include "comms/client_mqtt_async.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/mosquitto.h"

namespace varnel::comms {
namespace {

using test::Eventually;
using test::Mosquitto;

size_t CountEntries(const char* directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

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
                           .client_id = fmt::format("c{}", cycle),
                           .connect_timeout_s = 1});
    std::this_thread::sleep_for(
        std::chrono::microseconds(random() % 4000));  // any moment of the attempt
    if (cycle % 3 == 0) (void)client->Reconnect();
    // Seldom: beside another client the library needs 2 s for a connection.
    if (cycle % 36 == 0) Eventually([&] { return client->IsConnected(); });
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

/// The library, with a name server of the test's: it answers once, and then not before the test
/// ends.
class FallingSilent : public PahoAsyncApi {
 public:
  NameAddresses LookUp(const std::string&) override {
    if (asked_++ > 0) test_ends_.wait();
    return {{"127.0.0.1"}, ""};
  }
  void End() { test_ends_.count_down(); }

 private:
  std::atomic<int> asked_ = 0;
  std::latch test_ends_{1};
};

TEST(MqttNames, ANameServerThatFallsSilentStopsNoOtherLink) {
  Mosquitto broker;
  FallingSilent names;
  ClientMqttAsync local("local");
  ClientMqttAsync cloud("cloud", Qos::kAtLeastOnce, names);
  test::Mailbox<int> echoes;
  (void)local.AddListener("echo", [&](const std::shared_ptr<MqttMessage>&) { echoes.Put(1); });
  (void)local.Connect({.host = "127.0.0.1", .port = broker.Port(), .client_id = "local"});
  ASSERT_TRUE(Eventually([&] { return local.IsConnected(); }));
  const auto median_echo = [&] {
    std::vector<std::chrono::steady_clock::duration> times;
    for (size_t i = 0; i < 51; ++i) {
      const auto start = std::chrono::steady_clock::now();
      const size_t before = echoes.Items().size();
      EXPECT_EQ(local.Send("echo", Qos::kAtMostOnce, false, "x"), CommsStatus::kOk);
      EXPECT_EQ(echoes.WaitFor(before + 1).size(), before + 1);
      times.push_back(std::chrono::steady_clock::now() - start);
    }
    std::nth_element(times.begin(), times.begin() + 25, times.end());
    return times[25];
  };
  const auto undisturbed = median_echo();
  // A name that no server knows: the library finds its address only in our answer.
  const MqttConnectSettings settings{
      .host = "cloud.invalid", .port = broker.Port(), .client_id = "cloud"};
  EXPECT_EQ(cloud.Connect(settings), CommsStatus::kOk);
  EXPECT_TRUE(Eventually([&] { return cloud.IsConnected(); }));
  EXPECT_EQ(cloud.Connect(settings), CommsStatus::kOk) << "at once";
  EXPECT_EQ(cloud.Phase(), LinkPhase::kConnecting);
  EXPECT_LE(median_echo(), undisturbed + std::chrono::milliseconds(50));
  names.End();
  EXPECT_TRUE(Eventually([&] { return cloud.IsConnected(); }));
}

}  // namespace
}  // namespace varnel::comms

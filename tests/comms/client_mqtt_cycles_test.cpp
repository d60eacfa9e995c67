#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
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
  const std::jthread vanish([&] {
    int fd = 0;
    while ((fd = accept(vanishing.Fd(), nullptr, nullptr)) >= 0 || errno != EINVAL) close(fd);
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
    // sleeps: any moment of the attempt
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    if (cycle % 3 == 0) (void)client->Reconnect();
    // Seldom: beside another client the library needs 2 s for a connection.
    if (cycle % 36 == 0) Eventually([&] { return client->IsConnected(); });
    (void)client->Send("t", Qos::kAtMostOnce, false, "x");
    if (cycle % 2 == 0) client->Disconnect();
  }
  other.reset();
  EXPECT_TRUE(Eventually([&] { return CountEntries("/proc/self/fd") <= descriptors + 2; }));
  shutdown(vanishing.Fd(), SHUT_RD);
}

/// The library, with a name server that is the test.
class TestNames : public PahoAsyncApi {
 public:
  NameAddresses LookUp(const std::string&) override { return {{"127.0.0.1"}, ""}; }
};

TEST(MqttNames, TheLibraryConnectsToTheAddressThatWasLookedUpForIt) {
  Mosquitto broker;
  TestNames names;
  ClientMqttAsync client("cloud", Qos::kAtMostOnce, names);
  // A name that no server knows.
  EXPECT_EQ(client.Connect({.host = "cloud.invalid", .port = broker.Port(), .client_id = "cloud"}),
            CommsStatus::kOk);
  EXPECT_TRUE(Eventually([&] { return client.IsConnected(); }));
}

}  // namespace
}  // namespace varnel::comms

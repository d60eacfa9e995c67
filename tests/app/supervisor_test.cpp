#include "app/supervisor.h"

#include <gtest/gtest.h>

#include "support/fake_clock.h"
#include "support/fake_mqtt_client.h"
#include "support/log_capture.h"

namespace varnel::app {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

/// A supervisor whose time jumps from wait to wait; `events_` happen when their time has come, the
/// last of them being the shutdown.
class SupervisorTest : public testing::Test {
 protected:
  SupervisorTest() { EXPECT_EQ(manager_.InitLocal(), comms::CommsStatus::kOk); }

  /// Connects and supervises until a signal at `shutdown`; how long that took.
  milliseconds LiveUntil(milliseconds shutdown) {
    Supervisor supervisor(
        manager_,
        [this, shutdown] {
          HappenUntil(clock_.Elapsed());
          return clock_.Elapsed() >= shutdown;
        },
        clock_);
    supervisor.ConnectLocal({});
    connected_after_ = clock_.Elapsed();
    supervisor.Run();
    return clock_.Elapsed();
  }
  void At(milliseconds time, std::function<void()> event) { events_[time] = std::move(event); }
  void HappenUntil(milliseconds now) {
    while (!events_.empty() && events_.begin()->first <= now) {
      const auto event = std::move(events_.extract(events_.begin()).mapped());
      event();
    }
  }

  const test::LogCapture log_;
  test::FakeClock clock_{test::FakeClock::Waiting::kJump};
  std::map<milliseconds, std::function<void()>> events_;
  milliseconds connected_after_{0};
  std::shared_ptr<test::FakeMqttClient> client_ = std::make_shared<test::FakeMqttClient>();
  comms::CommsManager manager_{[this](const std::string&, comms::Qos) { return client_; }};
};

TEST_F(SupervisorTest, AnAbsentBrokerIsReportedOnceAndTriedUntilItComes) {
  client_->connects = false;
  At(30s, [this] { client_->connects = true; });
  LiveUntil(60s);
  EXPECT_GE(connected_after_, 11s);
  EXPECT_LE(connected_after_, 11s + Supervisor::kConnectPoll);
  EXPECT_EQ(log_.Count("MAIN", "local MQTT broker not reachable within 10s, continuing anyway"),
            1U);
  // From the eleventh second on every three seconds, the last time when the broker is there.
  EXPECT_EQ(client_->reconnects, 8);
  EXPECT_TRUE(manager_.IsLocalConnected());
}

TEST_F(SupervisorTest, EachLossLeadsToOneReconnectWithinThreeSeconds) {
  for (const auto loss : {10s, 20s}) {
    At(loss, [this] {
      client_->Lose();
      client_->Lose();  // the library may report one loss twice
    });
    At(loss + 3s, [this] { EXPECT_TRUE(manager_.IsLocalConnected()); });
  }
  LiveUntil(60s);
  EXPECT_EQ(connected_after_, 1s) << "it only settles";
  EXPECT_EQ(client_->reconnects, 2) << "a live connection is left alone";
}

TEST_F(SupervisorTest, ShutdownEndsEveryWait) {
  const std::pair<bool, milliseconds> cases[] = {{false, 0ms}, {false, 5s},   {false, 10500ms},
                                                 {false, 13s}, {true, 500ms}, {true, 20s}};
  for (const auto& [broker, shutdown] : cases) {
    client_->connects = broker;
    const milliseconds start = clock_.Elapsed();
    EXPECT_LE(LiveUntil(start + shutdown), start + shutdown + Supervisor::kFlagPoll)
        << "broker " << broker << ", " << shutdown.count() << " ms";
    client_->Disconnect();
  }
}

}  // namespace
}  // namespace varnel::app

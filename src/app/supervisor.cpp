#include "app/supervisor.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "utils/log.h"

namespace varnel::app {
namespace {

constexpr const char* kTag = "MAIN";

}  // namespace

Supervisor::Supervisor(comms::CommsManager& comms, std::function<bool()> shutdown_requested,
                       utils::Clock& clock)
    : comms_(comms), shutdown_requested_(std::move(shutdown_requested)), clock_(clock) {}

void Supervisor::ConnectLocal(const LocalBroker& broker) {
  // Before connecting, so that a failure of the first connection leads to a reconnect too.
  comms_.SetLocalDisconnectCallback([flag = reconnect_needed_] { *flag = true; });
  // A failure comes back through that callback.
  (void)comms_.ConnectLocal(broker.host, broker.port, broker.identity);
  AwaitLocal();
  WaitFor(kSettle);
}

void Supervisor::AwaitLocal() {
  const auto deadline = clock_.Now() + kConnectWait;
  while (!comms_.IsLocalConnected() && !shutdown_requested_()) {
    if (clock_.Now() >= deadline) {
      VLOG_WARN(kTag, "local MQTT broker not reachable within 10s, continuing anyway");
      return;
    }
    clock_.SleepFor(kConnectPoll);
  }
}

void Supervisor::Run() {
  while (!shutdown_requested_()) {
    if (reconnect_needed_->exchange(false)) {
      VLOG_INFO(kTag, "local MQTT disconnected, reconnecting...");
      comms_.ReconnectLocal();
    }
    WaitFor(kPeriod);
  }
}

bool Supervisor::WaitFor(std::chrono::milliseconds time) {
  const auto deadline = clock_.Now() + time;
  utils::MutexLock lock(mutex_);
  while (!shutdown_requested_() && clock_.Now() < deadline) {
    const auto slice = std::min(deadline, clock_.Now() + kFlagPoll);
    clock_.WaitUntil(lock, wake_, slice, shutdown_requested_);
  }
  return !shutdown_requested_();
}

}  // namespace varnel::app

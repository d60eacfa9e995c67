#pragma once

#include <algorithm>
#include <chrono>
#include <functional>

namespace varnel::service {

/// How long the agent holds back, so that a cloud that was away does not meet all its devices at
/// once. One thread.
class ConnectPacing {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// @param random from 0 up to 1
  explicit ConnectPacing(std::function<double()> random) : random_(std::move(random)) {}

  /// A wait with up to a fifth more.
  [[nodiscard]] Milliseconds Spread(Milliseconds time) const { return time + Part(time / 5); }

  void OnLost() { connect_ = Part(std::chrono::seconds(5)); }
  /// Two devices of one name would throw each other out for ever.
  void OnTakenOver() { connect_ = Spread(std::chrono::seconds(30)); }
  void OnConnectFailed() {
    connect_ = Spread(std::chrono::seconds(1 << failed_connects_));
    failed_connects_ = std::min(failed_connects_ + 1, 3);
  }
  void OnCycleFailed() {
    cycle_ = Spread(std::min(std::chrono::seconds(1 << failed_cycles_), std::chrono::seconds(30)));
    failed_cycles_ = std::min(failed_cycles_ + 1, 5);
    failed_connects_ = 0;
    connect_ = Milliseconds(0);
  }
  void OnConnected() { failed_cycles_ = failed_connects_ = 0; }
  /// The owner wants it now.
  void OnWish() {
    failed_cycles_ = 0;
    cycle_ = connect_ = Milliseconds(0);
  }

  /// Between two requests for a token; more after a few rounds, so that a server that has just come
  /// back is not asked more than ten times a minute by each device.
  [[nodiscard]] Milliseconds TokenPause() const {
    return std::chrono::seconds(failed_cycles_ < 3 ? 3 : 6);
  }
  /// Before the next attempt at the broker, once.
  [[nodiscard]] Milliseconds TakeConnectPause() { return std::exchange(connect_, Milliseconds(0)); }
  /// Before the next cycle, once.
  [[nodiscard]] Milliseconds TakeCyclePause() { return std::exchange(cycle_, Milliseconds(0)); }

 private:
  [[nodiscard]] Milliseconds Part(Milliseconds whole) const {
    return std::chrono::duration_cast<Milliseconds>(whole * random_());
  }

  const std::function<double()> random_;
  Milliseconds connect_{0};
  Milliseconds cycle_{0};
  int failed_connects_ = 0;
  int failed_cycles_ = 0;
};

}  // namespace varnel::service

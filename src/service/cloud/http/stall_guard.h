#pragma once

#include <curl/curl.h>

#include <chrono>

#include "utils/clock.h"

namespace varnel::service {

/// Watches whether a transfer moves. One thread.
class StallGuard {
 public:
  /// The time counts from now on, the connection's begin included.
  StallGuard(const utils::Clock& clock, double limit_s)
      : clock_(clock), limit_(limit_s), changed_(clock.Now()) {}

  /// False when nothing has come for longer than the limit.
  [[nodiscard]] bool GoesOn(curl_off_t received) {
    const auto now = clock_.Now();
    if (received == received_) return now - changed_ <= limit_;
    received_ = received;
    changed_ = now;
    return true;
  }
  /// True once for each second in which something came.
  [[nodiscard]] bool IsNewSecond() {
    const auto second =
        std::chrono::floor<std::chrono::seconds>(changed_.time_since_epoch()).count();
    if (received_ == 0 || second == reported_second_) return false;
    reported_second_ = second;
    return true;
  }
  [[nodiscard]] curl_off_t Received() const { return received_; }

 private:
  const utils::Clock& clock_;
  const std::chrono::duration<double> limit_;
  utils::Clock::TimePoint changed_;
  curl_off_t received_ = 0;
  int64_t reported_second_ = -1;
};

}  // namespace varnel::service

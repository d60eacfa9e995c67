#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "utils/clock.h"

namespace varnel::service {

/// A line of the log that would be the same again and again: due when it changes, and once an hour.
/// One thread.
class RepeatedLine {
 public:
  explicit RepeatedLine(const utils::Clock& clock) : clock_(clock) {}

  [[nodiscard]] bool IsDue(const std::string& content) {
    const auto now = clock_.Now();
    if (said_ && content == content_ && now - *said_ < std::chrono::hours(1)) return false;
    said_ = now;
    content_ = content;
    return true;
  }
  /// What comes next is due.
  void Forget() { said_.reset(); }

 private:
  const utils::Clock& clock_;
  std::optional<utils::Clock::TimePoint> said_;
  std::string content_;
};

}  // namespace varnel::service

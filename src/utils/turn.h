#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::utils {

/// Lets one caller at a time use something, in the order in which they came, each waiting a bounded
/// time on the injected clock. Thread-safe.
class Turn {
 public:
  explicit Turn(Clock& clock) : clock_(clock) {}

  /// Gives the turn back at its end of life.
  class Holder {
   public:
    /// Waits at most `limit`; false as a condition when the turn did not come.
    Holder(Turn& turn, std::chrono::milliseconds limit) : turn_(turn), held_(turn.Take(limit)) {}
    ~Holder() {
      if (held_) turn_.Give();
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    explicit operator bool() const { return held_; }

   private:
    Turn& turn_;
    const bool held_;
  };

 private:
  bool Take(std::chrono::milliseconds limit);
  void Give();

  Clock& clock_;
  Mutex mutex_;
  Condition changed_;
  uint64_t last_ticket_ GUARDED_BY(mutex_) = 0;
  std::deque<uint64_t> line_ GUARDED_BY(mutex_){};  // whose turn it is, then who waits
};

}  // namespace varnel::utils

#pragma once

#include <chrono>
#include <functional>

#include "utils/mutex.h"

namespace varnel::utils {

/// The only way a service tells or spends time. Time-outs and periods use Now(); WallNow() is for
/// time stamps that people read. Implementations are thread-safe.
class Clock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using WallTime = std::chrono::system_clock::time_point;

  virtual ~Clock() = default;
  virtual TimePoint Now() const = 0;
  virtual WallTime WallNow() const = 0;
  virtual void SleepFor(std::chrono::milliseconds time) = 0;
  /// Waits on `wake` until `ready` or `deadline`; returns what `ready` says at the end.
  virtual bool WaitUntil(MutexLock& lock, Condition& wake, TimePoint deadline,
                         const std::function<bool()>& ready) = 0;
};

/// The machine's own clocks.
class SystemClock : public Clock {
 public:
  TimePoint Now() const override;
  WallTime WallNow() const override;
  void SleepFor(std::chrono::milliseconds time) override;
  bool WaitUntil(MutexLock& lock, Condition& wake, TimePoint deadline,
                 const std::function<bool()>& ready) override;
  /// The process-wide instance that default arguments use.
  static SystemClock& Instance();
};

}  // namespace varnel::utils

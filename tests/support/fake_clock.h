#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "utils/clock.h"

namespace varnel::test {

/// Time that passes only when the test says so. SleepFor() adds its time and returns at once.
/// WaitUntil() either waits until the test advances the time (kManual) or takes the deadline as
/// reached at once (kJump), so that a loop with hours of pauses runs in no time.
class FakeClock : public utils::Clock {
 public:
  enum class Waiting { kManual, kJump };

  explicit FakeClock(Waiting waiting = Waiting::kManual) : waiting_(waiting) {}

  TimePoint Now() const override {
    const std::lock_guard lock(mutex_);
    return TimePoint{} + std::chrono::hours(1) + elapsed_;
  }
  WallTime WallNow() const override {
    const std::lock_guard lock(mutex_);
    return wall_start_ + std::chrono::duration_cast<WallTime::duration>(elapsed_);
  }
  void SleepFor(std::chrono::milliseconds time) override { Advance(time); }

  bool WaitUntil(utils::MutexLock& lock, utils::Condition& wake, TimePoint deadline,
                 const std::function<bool()>& ready) override {
    AddWaiter(1);
    bool done = ready();
    while (!done && Now() < deadline) {
      if (waiting_ == Waiting::kJump) {
        JumpTo(deadline);
      } else {
        // Short real waits instead of a list of sleepers to wake: no wake-up can be lost.
        wake.WaitUntil(lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(1),
                       ready);
      }
      done = ready();
    }
    AddWaiter(-1);
    return done;
  }

  void Advance(std::chrono::milliseconds time) {
    const std::lock_guard lock(mutex_);
    elapsed_ += time;
  }
  void SetWallTime(WallTime now) {
    const std::lock_guard lock(mutex_);
    wall_start_ = now - std::chrono::duration_cast<WallTime::duration>(elapsed_);
  }
  std::chrono::milliseconds Elapsed() const {
    const std::lock_guard lock(mutex_);
    return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed_);
  }
  /// Returns when that many threads are inside WaitUntil(), so that Advance() finds them there.
  void AwaitWaiters(int count) {
    std::unique_lock lock(mutex_);
    waiters_changed_.wait(lock, [&] { return waiters_ >= count; });
  }

 private:
  void AddWaiter(int change) {
    const std::lock_guard lock(mutex_);
    waiters_ += change;
    waiters_changed_.notify_all();
  }
  void JumpTo(TimePoint deadline) {
    const auto left = deadline - Now();
    const std::lock_guard lock(mutex_);
    elapsed_ += std::max(left, TimePoint::duration::zero());
  }

  const Waiting waiting_;
  mutable std::mutex mutex_;
  std::condition_variable waiters_changed_;
  TimePoint::duration elapsed_{};                             // mutex_
  WallTime wall_start_{std::chrono::seconds(1'700'000'000)};  // mutex_
  int waiters_ = 0;                                           // mutex_
};

}  // namespace varnel::test

#include "utils/clock.h"

#include <thread>

namespace varnel::utils {

Clock::TimePoint SystemClock::Now() const {
  return std::chrono::steady_clock::now();
}

Clock::WallTime SystemClock::WallNow() const {
  return std::chrono::system_clock::now();
}

void SystemClock::SleepFor(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

bool SystemClock::WaitUntil(MutexLock& lock, Condition& wake, TimePoint deadline,
                            const std::function<bool()>& ready) {
  return wake.WaitUntil(lock, deadline, ready);
}

SystemClock& SystemClock::Instance() {
  static SystemClock clock;
  return clock;
}

}  // namespace varnel::utils

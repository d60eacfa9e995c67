#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::utils {

/// A service thread that does something again and again, with pauses in between.
class PausingThread {
 public:
  /// Waits for that time; false, and at once, when the thread is to end.
  using Pause = std::function<bool(std::chrono::milliseconds time)>;
  using Body = std::function<void(const Pause& pause)>;

  /// Throws std::system_error when no thread can be started. See SpawnGuarded() for the rest.
  PausingThread(std::string name, const char* tag, Clock& clock, Body body);
  /// Ends a pause and waits for the body to return.
  ~PausingThread();
  PausingThread(const PausingThread&) = delete;
  PausingThread& operator=(const PausingThread&) = delete;

 private:
  bool Wait(std::chrono::milliseconds time);

  Clock& clock_;
  Mutex mutex_;
  Condition wake_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::jthread thread_;  // last: it uses the rest
};

}  // namespace varnel::utils

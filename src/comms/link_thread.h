#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// One thread that runs tasks in the order in which they were posted, with one deadline between
/// them. Thread-safe.
class LinkThread {
 public:
  using Task = std::function<void()>;

  /// `on_deadline` runs on the thread when a deadline has passed.
  LinkThread(const std::string& name, utils::Clock& clock, Task on_deadline);
  ~LinkThread();
  LinkThread(const LinkThread&) = delete;
  LinkThread& operator=(const LinkThread&) = delete;

  /// After Stop() nothing runs any more.
  void Post(Task task);
  void SetDeadline(std::optional<utils::Clock::TimePoint> deadline);
  /// Lets the running task finish and drops the others. Not from a task.
  void Stop();

 private:
  void Run();
  /// Nothing when the thread is to end; the deadline's task when that has come.
  Task Next();

  utils::Clock& clock_;
  const Task on_deadline_;
  utils::Mutex mutex_;
  utils::Condition wake_;
  std::deque<Task> tasks_ GUARDED_BY(mutex_);
  std::optional<utils::Clock::TimePoint> deadline_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
  uint64_t changes_ GUARDED_BY(mutex_) = 0;  // of the deadline
  std::jthread thread_;                      // last: starts when the rest is complete
};

}  // namespace varnel::comms

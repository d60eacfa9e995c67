#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "utils/clock.h"

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
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;  // guarded by mutex_, like the next two
  std::optional<utils::Clock::TimePoint> deadline_;
  bool stopped_ = false;
  uint64_t changes_ = 0;  // of the deadline; guarded by mutex_
  std::jthread thread_;   // last: starts when the rest is complete
};

}  // namespace varnel::comms

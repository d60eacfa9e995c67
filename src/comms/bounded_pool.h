#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "utils/mutex.h"
#include "utils/thread_pool.h"

namespace varnel::comms {

/// Workers with a bounded backlog: what cannot start soon is refused, so a flood costs its senders
/// an error instead of this process its memory. Thread-safe.
class BoundedPool {
 public:
  static constexpr size_t kMaxWaiting = 1024;

  /// `name` begins the names of the threads; `max_bytes` may wait, and one task alone whatever its
  /// size.
  BoundedPool(std::string name, size_t workers, size_t max_bytes);

  /// Starts the workers unless they run already. Throws std::system_error when the system has no
  /// thread left.
  void Open();

  /// The pool must be open. `bytes` are counted while the task waits. False when too much waits
  /// already. An exception that a task lets out is lost.
  [[nodiscard]] bool TryPost(std::function<void()> task, size_t bytes);

 private:
  /// The place of one waiting task; given back when the task starts or is thrown away.
  class Place;

  const std::string name_;
  const size_t workers_;
  const size_t max_bytes_;
  std::atomic<size_t> waiting_{0};
  std::atomic<size_t> waiting_bytes_{0};
  utils::Mutex mutex_;
  std::unique_ptr<utils::ThreadPool> pool_ GUARDED_BY(mutex_);  // once made it stays; last: its
                                                                // threads use the counters
};

}  // namespace varnel::comms

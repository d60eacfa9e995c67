#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

#include "utils/thread_pool.h"

namespace varnel::comms {

/// A thread pool with a bounded backlog: what cannot start soon is refused, so a flood of requests
/// costs its senders an error instead of this process its memory.
class WorkerLane {
 public:
  static constexpr size_t kThreads = 4;
  static constexpr size_t kMaxWaiting = 1024;

  explicit WorkerLane(const std::string& name);

  /// False when too many tasks wait already. An exception that a task lets out is lost.
  [[nodiscard]] bool TryPost(std::function<void()> task);

 private:
  std::atomic<size_t> waiting_{0};
  utils::ThreadPool pool_;  // last: its threads use the counter
};

}  // namespace varnel::comms

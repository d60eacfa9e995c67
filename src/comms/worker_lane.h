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
  /// Of the requests that wait; parsed they may take many times as much.
  static constexpr size_t kMaxWaitingBytes = size_t{8} << 20;

  explicit WorkerLane(const std::string& name);

  /// `bytes` is the size of the request that the task holds. False when too much waits already. An
  /// exception that a task lets out is lost.
  [[nodiscard]] bool TryPost(std::function<void()> task, size_t bytes);

 private:
  /// The place of one waiting task; given back when the task starts or is thrown away.
  class Place;

  std::atomic<size_t> waiting_{0};
  std::atomic<size_t> waiting_bytes_{0};
  utils::ThreadPool pool_;  // last: its threads use the counter
};

}  // namespace varnel::comms

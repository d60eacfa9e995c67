#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "comms/method_kind.h"
#include "utils/thread_pool.h"

namespace varnel::comms {

/// What one request takes.
struct RequestSize {
  size_t bytes = 0;        ///< while it waits
  size_t built_bytes = 0;  ///< while it runs
};

/// Workers for the methods of one group of services, apart for each kind of method, each kind with
/// a bounded backlog of its own: what cannot start soon is refused, so a flood of requests costs
/// its senders an error instead of this process its memory, and other kinds nothing. Large requests
/// of all kinds have one worker and one backlog, so that only one of them is built at a time.
/// Thread-safe.
class WorkerLane {
 public:
  /// Of the requests that wait, of each kind.
  static constexpr size_t kMaxWaiting = 1024;
  static constexpr size_t kMaxWaitingBytes = size_t{2} << 20;
  /// Of the large ones that wait.
  static constexpr size_t kMaxLargeBytes = size_t{8} << 20;
  /// What is larger, waiting or built, is large.
  static constexpr size_t kLargeBytes = size_t{256} << 10;

  static constexpr size_t WorkersFor(MethodKind kind) {
    // The camera serves one after another: one runs, and those behind it begin to count their wait.
    return kind == MethodKind::kPhoto || kind == MethodKind::kDetection ? 3 : 2;
  }

  /// `name` begins the names of the threads.
  explicit WorkerLane(std::string name);

  /// Starts the workers of a kind, unless they run already. Throws std::system_error when the
  /// system has no thread left.
  void Open(MethodKind kind);

  /// The kind must be open. False when too much of it waits already. An exception that a task lets
  /// out is lost.
  [[nodiscard]] bool TryPost(MethodKind kind, std::function<void()> task, RequestSize size);

 private:
  /// The place of one waiting task; given back when the task starts or is thrown away.
  class Place;
  struct Backlog {
    std::atomic<size_t> waiting{0};
    std::atomic<size_t> bytes{0};
  };

  static constexpr size_t kKinds = static_cast<size_t>(MethodKind::kNetwork) + 1;
  static constexpr size_t kLarge = kKinds;

  void OpenPool(size_t index, const char* name, size_t workers);
  utils::ThreadPool& PoolAt(size_t index);

  const std::string name_;
  // By kind, and one for what is large.
  std::array<Backlog, kKinds + 1> backlogs_;
  std::mutex mutex_;
  // The same; once made they stay. Guarded by mutex_. Last: the threads use the backlogs.
  std::array<std::unique_ptr<utils::ThreadPool>, kKinds + 1> pools_;
};

}  // namespace varnel::comms

#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>

#include "comms/bounded_pool.h"
#include "comms/method_kind.h"

namespace varnel::comms {

/// What one request takes.
struct RequestSize {
  size_t bytes = 0;        ///< while it waits
  size_t built_bytes = 0;  ///< while it runs
};

/// The one worker for the large requests of all lanes: only one of them is built at a time.
/// Thread-safe.
class LargeRequests {
 public:
  /// What is larger, waiting or built, is large.
  static constexpr size_t kBytes = size_t{256} << 10;

  LargeRequests() : pool_("rpc-large", 1, size_t{4} << 20U) {}
  void Open() { pool_.Open(); }
  static bool Includes(RequestSize size) {
    return size.bytes > kBytes || size.built_bytes > kBytes;
  }
  /// See BoundedPool.
  [[nodiscard]] bool TryPost(std::function<void()> task, size_t bytes);

 private:
  BoundedPool pool_;
};

/// Workers for the methods of one group of services, apart for each kind of method, each kind with
/// a bounded backlog of its own. Thread-safe.
class WorkerLane {
 public:
  /// Of the requests that wait, of each kind.
  static constexpr size_t kMaxWaitingBytes = size_t{2} << 20;

  static constexpr size_t WorkersFor(MethodKind kind) {
    if (kind == MethodKind::kCommand) return 1;
    // Two films and one picture for who watches may be on their way, and the next one is told so.
    if (kind == MethodKind::kNetwork) return 4;
    // The camera serves one after another: one runs, and those behind it begin to count their wait.
    return kind == MethodKind::kQuick || kind == MethodKind::kListing ? 2 : 3;
  }

  /// `name` begins the names of the threads. `large` must outlive the lane.
  WorkerLane(const std::string& name, LargeRequests& large);

  /// Starts the workers of a kind, unless they run already. Throws std::system_error when the
  /// system has no thread left.
  void Open(MethodKind kind);

  /// The kind must be open. False when too much of it waits already. An exception that a task lets
  /// out is lost.
  [[nodiscard]] bool TryPost(MethodKind kind, std::function<void()> task, RequestSize size);

 private:
  static constexpr size_t kKinds = static_cast<size_t>(MethodKind::kNetwork) + 1;

  BoundedPool& PoolOf(MethodKind kind) { return pools_.at(static_cast<size_t>(kind)); }

  LargeRequests& large_;
  std::array<BoundedPool, kKinds> pools_;
};

}  // namespace varnel::comms

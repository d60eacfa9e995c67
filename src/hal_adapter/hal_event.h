#pragma once

#include <atomic>
#include <deque>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hal_interface/hal_register.h"
#include "utils/mutex.h"

namespace varnel::hal_adapter {

/// Carries the platform's asynchronous events to their callbacks on a thread of its own. Every
/// function is callable from any thread, callbacks included, except Stop() and the destructor.
class HALEvent {
 public:
  static constexpr size_t kMaxQueued = 64;

  HALEvent();
  /// Drops what is still queued.
  ~HALEvent();
  HALEvent(const HALEvent&) = delete;
  HALEvent& operator=(const HALEvent&) = delete;

  /// The process-wide one, created on first use.
  static HALEvent& Instance();

  HalStatus Post(const HalEventRecord* event);
  HalStatus RegisterCallback(uint32_t type, HalEventCallback callback, void* user_data);
  /// Ends the dispatch thread after the callback it is in; harmless when repeated.
  void Stop();
  /// Stop() has begun: nothing more is delivered.
  bool Stopping() const { return !running_; }

 private:
  using Callback = std::pair<HalEventCallback, void*>;

  void Dispatch();
  bool WaitForEvent(HalEventRecord& event);
  void Deliver(const HalEventRecord& event);
  std::vector<Callback> CallbacksOf(uint32_t type);

  std::atomic<bool> running_{true};

  utils::Mutex queue_mutex_;
  utils::Condition queue_filled_;
  std::deque<HalEventRecord> queue_ GUARDED_BY(queue_mutex_);

  // Never held together with queue_mutex_.
  utils::Mutex callback_mutex_;
  std::unordered_map<uint32_t, std::vector<Callback>> callbacks_ GUARDED_BY(callback_mutex_);

  std::jthread dispatcher_;
};

}  // namespace varnel::hal_adapter

#pragma once

#include <atomic>
#include <functional>
#include <utility>

namespace varnel::service {

/// Decides which cloud requests run: none while a user is being logged out. Thread-safe.
class CloudMessageFilter {
 public:
  /// Called by the thread of the first request that a logout costs.
  void SetOnFirstDrop(std::function<void()> callback) { on_first_drop_ = std::move(callback); }

  void BeginLogout() {
    told_ = false;
    logging_out_ = true;
  }
  void EndLogout() { logging_out_ = false; }
  [[nodiscard]] bool IsLoggingOut() const { return logging_out_; }

  /// Whether a request is dropped.
  [[nodiscard]] bool Drops() {
    if (!logging_out_) return false;
    if (!told_.exchange(true) && on_first_drop_) on_first_drop_();
    return true;
  }
  /// Whether nothing has been dropped since the logout began; from now on it counts as told.
  [[nodiscard]] bool TakeUntold() { return !told_.exchange(true); }

 private:
  std::function<void()> on_first_drop_;  // set before requests come
  std::atomic<bool> logging_out_ = false;
  std::atomic<bool> told_ = false;
};

}  // namespace varnel::service

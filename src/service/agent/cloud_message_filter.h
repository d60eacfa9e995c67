#pragma once

#include <atomic>
#include <functional>
#include <utility>

namespace varnel::service {

/// Decides which cloud requests run: none while a user is being logged out of the cloud that they
/// come from. Thread-safe.
class CloudMessageFilter {
 public:
  /// Whether that is so. Any thread; must not block.
  using LogoutCheck = std::function<bool()>;

  explicit CloudMessageFilter(LogoutCheck is_logging_out)
      : is_logging_out_(std::move(is_logging_out)) {}

  /// Whether a request is dropped.
  [[nodiscard]] bool Drops() {
    if (!is_logging_out_()) return false;
    dropped_ = true;
    return true;
  }
  /// Whether any has been dropped since this was asked last.
  [[nodiscard]] bool TakeDropped() { return dropped_.exchange(false); }

 private:
  const LogoutCheck is_logging_out_;
  std::atomic<bool> dropped_ = false;
};

}  // namespace varnel::service

#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace varnel::test {

/// For what tells nobody when it is done, like a broker: asks again after a moment.
inline bool Eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // sleeps: between two looks
  }
  return true;
}

/// What threads have reported so far; the test waits for it instead of sleeping.
template <class Item>
class Mailbox {
 public:
  void Put(Item item) {
    std::lock_guard lock(mutex_);  // also while notifying: the waiter may take the mailbox away
    items_.push_back(std::move(item));
    arrived_.notify_all();
  }

  /// All items once there are `count` of them, or what there is after the limit.
  std::vector<Item> WaitFor(size_t count, std::chrono::seconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, limit, [&] { return items_.size() >= count; });
    return items_;
  }

  std::vector<Item> Items() const {
    std::lock_guard lock(mutex_);
    return items_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Item> items_;
};

}  // namespace varnel::test

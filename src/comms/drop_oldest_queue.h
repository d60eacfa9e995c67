#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace varnel::comms {

/// A queue between threads, bounded in items and bytes: what is full loses its oldest entries,
/// never its newest, and never makes the producer wait. Thread-safe.
template <class Item>
class DropOldestQueue {
 public:
  static constexpr size_t kMaxItems = 256;
  static constexpr size_t kMaxBytes = size_t{64} << 20;

  /// Queues an item that occupies `bytes`. `on_drop` gets the number of queued items before each
  /// one that is lost.
  template <class OnDrop>
  void Push(Item item, size_t bytes, OnDrop on_drop) {
    std::lock_guard lock(mutex_);
    while (entries_.size() >= kMaxItems || (!entries_.empty() && bytes_ + bytes > kMaxBytes)) {
      on_drop(entries_.size());
      bytes_ -= entries_.front().bytes;
      entries_.pop_front();
    }
    entries_.push_back({std::move(item), bytes});
    bytes_ += bytes;
    wake_.notify_one();
  }

  /// Waits for the oldest item; nothing once the queue is closed, whatever is left in it.
  std::optional<Item> Pop() {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return closed_ || !entries_.empty(); });
    if (closed_) return std::nullopt;
    Entry entry = std::move(entries_.front());
    entries_.pop_front();
    bytes_ -= entry.bytes;
    return std::move(entry.item);
  }

  void Close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    wake_.notify_all();
  }

 private:
  struct Entry {
    Item item;
    size_t bytes;
  };

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Entry> entries_;  // guarded by mutex_
  size_t bytes_ = 0;           // guarded by mutex_
  bool closed_ = false;        // guarded by mutex_
};

}  // namespace varnel::comms

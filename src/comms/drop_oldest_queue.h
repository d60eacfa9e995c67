#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

#include "utils/mutex.h"

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
    const utils::MutexLock lock(mutex_);
    while (entries_.size() >= kMaxItems || (!entries_.empty() && bytes_ + bytes > kMaxBytes)) {
      on_drop(entries_.size());
      bytes_ -= entries_.front().bytes;
      entries_.pop_front();
    }
    entries_.push_back({std::move(item), bytes});
    bytes_ += bytes;
    wake_.NotifyOne();
  }

  /// Waits for the oldest item; nothing once the queue is closed, whatever is left in it.
  std::optional<Item> Pop() {
    utils::MutexLock lock(mutex_);
    wake_.Wait(lock, [this]() REQUIRES(mutex_) { return closed_ || !entries_.empty(); });
    if (closed_) return std::nullopt;
    Entry entry = std::move(entries_.front());
    entries_.pop_front();
    bytes_ -= entry.bytes;
    return std::move(entry.item);
  }

  void Close() {
    const utils::MutexLock lock(mutex_);
    closed_ = true;
    wake_.NotifyAll();
  }

 private:
  struct Entry {
    Item item;
    size_t bytes;
  };

  utils::Mutex mutex_;
  utils::Condition wake_;
  std::deque<Entry> entries_ GUARDED_BY(mutex_);
  size_t bytes_ GUARDED_BY(mutex_) = 0;
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace varnel::comms

#pragma once

#include <memory>

#include "utils/mutex.h"

namespace varnel::utils {

/// So many may do something at a time. Thread-safe; outlives what it gives.
class Permits {
 public:
  explicit Permits(int count) : free_(count) {}
  Permits(const Permits&) = delete;
  Permits& operator=(const Permits&) = delete;

  /// One permit, given back with the last copy; null when none is free.
  [[nodiscard]] std::shared_ptr<void> TryTake() {
    if (!Take()) return nullptr;
    // Outside the lock: without memory for it the permit goes back at once.
    return {this, [](Permits* permits) {
              const MutexLock back(permits->mutex_);
              ++permits->free_;
            }};
  }

 private:
  bool Take() {
    const MutexLock lock(mutex_);
    if (free_ == 0) return false;
    --free_;
    return true;
  }

  Mutex mutex_;
  int free_ GUARDED_BY(mutex_);
};

}  // namespace varnel::utils

#pragma once

#include <condition_variable>
#include <mutex>

#include "utils/thread_annotations.h"

namespace varnel::utils {

/// A std::mutex that clang's analysis of lock use knows. Given back by MutexLock only.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  [[nodiscard]] bool TryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds a mutex up to the end of the scope; may give it up in between. Its functions have the
/// names that std::condition_variable_any asks for.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  /// Of one that TryLock() has taken.
  MutexLock(Mutex& mutex, std::adopt_lock_t adopted) REQUIRES(mutex)
      : lock_(mutex.mutex_, adopted) {}
  ~MutexLock() RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() ACQUIRE() { lock_.lock(); }
  void unlock() RELEASE() { lock_.unlock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

/// A std::condition_variable for MutexLock. What a predicate reads is guarded by the lock's mutex:
/// it is a lambda with REQUIRES.
class Condition {
 public:
  template <class Predicate>
  void Wait(MutexLock& lock, Predicate ready) {
    condition_.wait(lock.lock_, ready);
  }
  /// What `ready` says at the end.
  template <class TimePoint, class Predicate>
  bool WaitUntil(MutexLock& lock, TimePoint deadline, Predicate ready) {
    return condition_.wait_until(lock.lock_, deadline, ready);
  }
  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace varnel::utils

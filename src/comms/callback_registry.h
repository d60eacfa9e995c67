#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

namespace varnel::comms {

/// Turns the context pointers that a C library hands back into live objects. The library may call
/// back after its handle was destroyed, so a context is a number that is looked up, never an
/// address. Thread-safe; the process-wide instance outlives every library thread.
template <class Client>
class CallbackRegistry {
 public:
  static CallbackRegistry& Instance() {
    static auto* registry =
        new CallbackRegistry;  // never destroyed: library threads may still call
    return *registry;
  }

  /// The context of a new library handle of `client`.
  void* Register(Client* client) {
    std::lock_guard lock(mutex_);
    const uintptr_t id = ++last_id_;
    entries_[id] = Entry{client, 0};
    return reinterpret_cast<void*>(id);  // NOLINT(performance-no-int-to-ptr): only ever a number
  }

  /// Waits until no callback of this context runs; false when `deadline` came first.
  bool WaitIdle(void* context, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    return idle_.wait_until(lock, deadline, [&] { return Active(context) == 0; });
  }

  /// From now on callbacks with this context find no client. Waits for those that still run,
  /// without limit: they belong to this program and only queue and set flags.
  void Retire(void* context) {
    std::unique_lock lock(mutex_);
    const auto entry = entries_.find(Key(context));
    if (entry == entries_.end()) return;
    entry->second.client = nullptr;
    idle_.wait(lock, [&] { return entry->second.active == 0; });
    entries_.erase(entry);
  }

  /// Keeps the client of a context alive for the length of one callback.
  class Call {
   public:
    Call(CallbackRegistry& registry, void* context) : registry_(registry), context_(context) {
      std::lock_guard lock(registry_.mutex_);
      const auto entry = registry_.entries_.find(Key(context));
      if (entry == registry_.entries_.end() || !entry->second.client) return;
      client_ = entry->second.client;
      ++entry->second.active;
    }
    ~Call() {
      if (!client_) return;
      std::lock_guard lock(registry_.mutex_);
      --registry_.entries_.find(Key(context_))->second.active;
      registry_.idle_.notify_all();
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    explicit operator bool() const { return client_ != nullptr; }
    Client* operator->() const { return client_; }

   private:
    CallbackRegistry& registry_;
    void* const context_;
    Client* client_ = nullptr;
  };

 private:
  struct Entry {
    Client* client;
    int active;
  };

  static uintptr_t Key(void* context) { return reinterpret_cast<uintptr_t>(context); }

  int Active(void* context) const {
    const auto entry = entries_.find(Key(context));
    return entry == entries_.end() ? 0 : entry->second.active;
  }

  std::mutex mutex_;
  std::condition_variable idle_;
  std::map<uintptr_t, Entry> entries_;  // guarded by mutex_
  uintptr_t last_id_ = 0;               // guarded by mutex_
};

}  // namespace varnel::comms

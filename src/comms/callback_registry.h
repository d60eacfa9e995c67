#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <map>

#include "utils/clock.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// Turns the context pointers that a C library hands back into live objects. The library may call
/// back after its handle was destroyed, so a context is a number that is looked up, never an
/// address. Its upper half names the handle, its lower half is free for a number that tells the
/// calls on one handle apart. Thread-safe; the process-wide instance outlives every library thread.
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
    const utils::MutexLock lock(mutex_);
    const uintptr_t id = ++last_id_;
    entries_[id] = Entry{client, 0, false};
    return AsContext(id << kNumberBits);
  }

  /// The same handle's context with a number of the caller's.
  static void* WithNumber(void* context, uint32_t number) {
    return AsContext(Key(context) << kNumberBits | number);
  }
  static uint32_t NumberOf(void* context) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(context));
  }

  /// Waits until no callback of this context runs; false when `limit` came first.
  bool WaitIdle(void* context, utils::Clock& clock, std::chrono::milliseconds limit) {
    utils::MutexLock lock(mutex_);
    return clock.WaitUntil(lock, idle_, clock.Now() + limit,
                           [&]() REQUIRES(mutex_) { return Active(context) == 0; });
  }

  /// From now on callbacks with this context find no client; those that run go on.
  void Retire(void* context) {
    const utils::MutexLock lock(mutex_);
    const auto entry = entries_.find(Key(context));
    if (entry == entries_.end()) return;
    entry->second.retired = true;
    if (entry->second.active == 0) entries_.erase(entry);
  }

  /// Waits until no callback uses `client` any more, without limit: for its destructor, after
  /// Retire().
  void AwaitUnused(const Client* client) {
    utils::MutexLock lock(mutex_);
    idle_.Wait(lock, [&]() REQUIRES(mutex_) {
      return std::none_of(entries_.begin(), entries_.end(), [&](const auto& entry) {
        return entry.second.client == client && entry.second.active > 0;
      });
    });
  }

  /// One callback of the library: hands its client to `body`, and lets nothing that this throws
  /// into the library's C code. False when the client is gone.
  template <class Body>
  bool Run(void* context, Body body) noexcept {
    Client* const client = Enter(context);
    if (client == nullptr) return false;
    try {
      body(*client);
    } catch (const std::exception& error) {
      VLOG_ERROR("MQTT", "callback of the MQTT library failed: {}", utils::LogText(error.what()));
    } catch (...) {
      VLOG_ERROR("MQTT", "callback of the MQTT library failed: {}", "unknown");
    }
    Leave(context);
    return true;
  }

 private:
  struct Entry {
    Client* client;
    int active;
    bool retired;
  };

  Client* Enter(void* context) {
    const utils::MutexLock lock(mutex_);
    const auto entry = entries_.find(Key(context));
    if (entry == entries_.end() || entry->second.retired) return nullptr;
    ++entry->second.active;
    return entry->second.client;
  }
  void Leave(void* context) {
    const utils::MutexLock lock(mutex_);
    const auto entry = entries_.find(Key(context));
    if (--entry->second.active == 0 && entry->second.retired) entries_.erase(entry);
    idle_.NotifyAll();
  }

  static constexpr int kNumberBits = 32;
  static_assert(sizeof(uintptr_t) == 8);
  static void* AsContext(uintptr_t bits) {
    return reinterpret_cast<void*>(bits);  // NOLINT(performance-no-int-to-ptr): only ever a number
  }
  static uintptr_t Key(void* context) {
    return reinterpret_cast<uintptr_t>(context) >> kNumberBits;
  }

  int Active(void* context) const REQUIRES(mutex_) {
    const auto entry = entries_.find(Key(context));
    return entry == entries_.end() ? 0 : entry->second.active;
  }

  utils::Mutex mutex_;
  utils::Condition idle_;
  std::map<uintptr_t, Entry> entries_ GUARDED_BY(mutex_);
  uintptr_t last_id_ GUARDED_BY(mutex_) = 0;
};

}  // namespace varnel::comms

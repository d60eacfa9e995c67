#pragma once

#include <csignal>
#include <exception>
#include <stop_token>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "utils/log.h"

namespace varnel::utils {

/// Keeps SIGTERM, SIGINT and SIGHUP from the calling thread, and from threads it starts, while it
/// lives.
class BlockTerminationSignals {
 public:
  BlockTerminationSignals();
  ~BlockTerminationSignals();
  BlockTerminationSignals(const BlockTerminationSignals&) = delete;
  BlockTerminationSignals& operator=(const BlockTerminationSignals&) = delete;

 private:
  sigset_t before_;
};

/// Names the calling thread; the kernel keeps 15 characters.
void SetThreadName(const std::string& name);

/// Starts a service thread: named, never chosen for a termination signal, and the one place where
/// an exception of its body ends. The body takes a std::stop_token or nothing.
template <class Body>
[[nodiscard]] std::jthread SpawnGuarded(std::string name, const char* tag, Body body) {
  // Blocked before the start, so that the thread has no unprotected first moment.
  const BlockTerminationSignals blocked;
  return std::jthread([name = std::move(name), tag, body = std::move(body)](
                          [[maybe_unused]] const std::stop_token& stop) mutable {
    SetThreadName(name);
    try {
      if constexpr (std::is_invocable_v<Body&, std::stop_token>) {
        body(stop);
      } else {
        body();
      }
    } catch (const std::exception& e) {
      VLOG_ERROR(tag, "thread {} ended: {}", name, e.what());
    } catch (...) {
      VLOG_ERROR(tag, "thread {} ended: unknown exception", name);
    }
  });
}

}  // namespace varnel::utils

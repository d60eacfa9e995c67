#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "service/agent/auth/device_authentication.h"
#include "service/cloud/http/http_client.h"
#include "utils/clock.h"
#include "utils/mutex.h"
#include "utils/pausing_thread.h"

namespace varnel::service {

/// Sends reports about this device to the cloud's log, on a thread that there is as long as there
/// are any: one a second, once the device may, and less often while that fails. The newest are kept
/// until then; what the cloud refuses is forgotten. Thread-safe.
class ClientLog {
 public:
  static constexpr size_t kMaxKept = 32;

  /// @param path of the API; empty: reports only go to our own log
  /// @param may_send now
  ClientLog(DeviceAuthentication& authentication, std::string path, std::function<bool()> may_send);
  ClientLog(const ClientLog&) = delete;
  ClientLog& operator=(const ClientLog&) = delete;

  void PostClientLog(const char* level, const std::string& message);

 private:
  struct Report {
    std::string level;
    std::string message;
    int64_t time_ms;  ///< since the epoch
  };

  [[nodiscard]] bool Keep(Report report);
  void Run(const utils::PausingThread::Pause& pause);
  void SendAll(const utils::PausingThread::Pause& pause);
  [[nodiscard]] std::optional<Report> Oldest();
  void Forget(const Report& sent);
  [[nodiscard]] bool Send(const Report& report);

  DeviceAuthentication& authentication_;
  const std::string path_;
  const std::function<bool()> may_send_;
  HttpClient http_;
  mutable utils::Mutex mutex_;
  std::deque<Report> kept_ GUARDED_BY(mutex_);
  bool running_ GUARDED_BY(mutex_) = false;
  utils::Mutex starting_;  // held while the thread of before is awaited, before mutex_
  std::optional<utils::PausingThread> task_ GUARDED_BY(starting_);  // last: it uses the rest
};

}  // namespace varnel::service

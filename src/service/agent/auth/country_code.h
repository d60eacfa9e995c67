#pragma once

#include <functional>
#include <optional>
#include <string>

#include "service/cloud/http/http_client.h"
#include "utils/clock.h"
#include "utils/mutex.h"
#include "utils/pausing_thread.h"

namespace varnel::service {

/// Which country the board is in, as the cloud tells; asked for on a thread of its own, which its
/// end waits for. Thread-safe.
class CountryCode {
 public:
  /// One request: the answer of the API.
  using Fetch = std::function<HttpResponse()>;

  /// @param fetch called by the thread
  explicit CountryCode(Fetch fetch, utils::Clock& clock = utils::SystemClock::Instance());
  CountryCode(const CountryCode&) = delete;
  CountryCode& operator=(const CountryCode&) = delete;

  /// Three attempts in a minute, unless it is known or they go on.
  void StartFetchCountryCode();
  /// Two capitals; empty: not known.
  [[nodiscard]] std::string Get() const;

 private:
  void Run(const utils::PausingThread::Pause& pause);
  [[nodiscard]] std::string Fetched(const utils::PausingThread::Pause& pause) const;
  [[nodiscard]] std::string FetchCCFromAPI() const;

  const Fetch fetch_;
  utils::Clock& clock_;
  mutable utils::Mutex mutex_;
  std::string code_ GUARDED_BY(mutex_);
  bool running_ GUARDED_BY(mutex_) = false;
  std::optional<utils::PausingThread> task_;  // last: it uses the rest
};

}  // namespace varnel::service

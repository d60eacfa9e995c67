#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "service/cloud/http/http_client.h"
#include "utils/clock.h"

namespace varnel::service {

/// Which country the board is in, as the cloud tells; asked for on a thread of its own.
/// Thread-safe.
class CountryCode {
 public:
  /// One request: the answer of the API.
  using Fetch = std::function<HttpResponse()>;

  /// @param fetch called by the thread
  explicit CountryCode(Fetch fetch, utils::Clock& clock = utils::SystemClock::Instance());
  CountryCode(const CountryCode&) = delete;
  CountryCode& operator=(const CountryCode&) = delete;
  /// Waits for a request that runs.
  ~CountryCode();

  /// Three attempts in a minute, unless it is known or they go on.
  void StartFetchCountryCode();
  /// Two capitals; empty: not known.
  [[nodiscard]] std::string Get() const;

 private:
  void Run(const std::stop_token& stop);
  [[nodiscard]] std::string FetchCCFromAPI() const;

  const Fetch fetch_;
  utils::Clock& clock_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::string code_;      // mutex_
  bool running_ = false;  // mutex_
  std::jthread thread_;   // last: it uses the rest
};

}  // namespace varnel::service

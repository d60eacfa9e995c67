#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "service/camera/monitor/monitor_domain.h"
#include "service/camera/monitor/monitor_period.h"
#include "utils/clock.h"
#include "utils/mutex.h"
#include "utils/openssl_crypto.h"

namespace varnel::service {

/// Which domains are on, how often a picture is taken, and with what it is encrypted: starts, stops
/// and the end of the period meet here, under one lock. Thread-safe.
class MonitorSwitches {
 public:
  using Crypto = std::shared_ptr<utils::OpenSSLCrypto>;

  /// One start, from its begin on.
  struct Attempt {
    MonitorDomain domain;
    uint64_t stops;  ///< of the domain, before
    Crypto crypto;   ///< what the domain has already; null: it needs a new one
  };
  /// What one round is to do.
  struct Round {
    MonitorDomains on;
    std::optional<int> remaining_s;  ///< that are left of the period, when clients are to be told
    std::chrono::milliseconds interval;
    Crypto crypto;
    bool started;  ///< there was a start since the round before
  };
  /// Why the last domain is off.
  struct End {
    MonitorDomain domain;  ///< that was switched off last
    bool expired;
  };

  explicit MonitorSwitches(utils::Clock& clock) : clock_(clock) {}

  [[nodiscard]] MonitorDomains Domains() const;
  /// What pictures are or were encrypted with last; null: nothing yet.
  [[nodiscard]] Crypto LastCrypto() const;

  [[nodiscard]] Attempt Begin(MonitorDomain domain) const;
  /// The domain was switched off since the attempt began, or all ends.
  [[nodiscard]] bool WasStopped(const Attempt& attempt) const;
  /// Switches the domain on, and begins the period and a round. What is encrypted with from now on;
  /// null when the domain was switched off since the attempt began.
  Crypto TurnOn(const Attempt& attempt, const Crypto& crypto, std::chrono::milliseconds interval);
  void TurnOff(MonitorDomain domain);
  /// Switches all off, for ever.
  void RequestEnd();

  // The rest is for the thread that takes the pictures.

  /// Waits until a domain is on; false: there is nothing more to do.
  [[nodiscard]] bool AwaitOn();
  /// Nothing: no domain is on, or the period was over, and they are off by now.
  [[nodiscard]] std::optional<Round> NextRound();
  /// Waits until then, or until a start, the last stop, or a turn of the period.
  void Pause(utils::Clock::TimePoint until);
  /// Whether what that round made may still go to the cloud.
  [[nodiscard]] bool MayUpload(const Round& round) const;
  [[nodiscard]] End LastEnd() const;

 private:
  [[nodiscard]] uint64_t StopsOf(MonitorDomain domain) const REQUIRES(mutex_) {
    return domain == MonitorDomain::kWan ? wan_stops_ : lan_stops_;
  }
  void SwitchOff(MonitorDomain domain, bool expired) REQUIRES(mutex_);
  void SwitchAllOff(bool expired) REQUIRES(mutex_);

  utils::Clock& clock_;
  mutable utils::Mutex mutex_;
  utils::Condition wake_;
  MonitorDomains on_ GUARDED_BY(mutex_);
  MonitorPeriod period_ GUARDED_BY(mutex_);
  std::chrono::milliseconds interval_ GUARDED_BY(mutex_){};
  Crypto crypto_ GUARDED_BY(mutex_);
  uint64_t lan_stops_ GUARDED_BY(mutex_) = 0;
  uint64_t wan_stops_ GUARDED_BY(mutex_) = 0;
  bool started_ GUARDED_BY(mutex_) = false;  // since the last round began
  bool ending_ GUARDED_BY(mutex_) = false;
  End end_ GUARDED_BY(mutex_){MonitorDomain::kLan, false};
};

}  // namespace varnel::service

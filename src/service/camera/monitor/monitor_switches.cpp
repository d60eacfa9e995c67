#include "service/camera/monitor/monitor_switches.h"

#include <algorithm>
#include <utility>

namespace varnel::service {

using utils::MutexLock;

MonitorSwitches::Crypto MonitorSwitches::LastCrypto() const {
  const utils::MutexLock lock(mutex_);
  return crypto_;
}

MonitorDomains MonitorSwitches::Domains() const {
  const MutexLock lock(mutex_);
  return on_;
}

MonitorSwitches::Attempt MonitorSwitches::Begin(MonitorDomain domain) const {
  const MutexLock lock(mutex_);
  // Whoever watched over the cloud before must not be able to follow what comes now.
  const bool anew = domain == MonitorDomain::kWan && !on_.wan;
  return {domain, StopsOf(domain), anew ? nullptr : crypto_};
}

bool MonitorSwitches::WasStopped(const Attempt& attempt) const {
  const MutexLock lock(mutex_);
  return ending_ || attempt.stops != StopsOf(attempt.domain);
}

MonitorSwitches::Crypto MonitorSwitches::TurnOn(const Attempt& attempt, const Crypto& crypto,
                                                std::chrono::milliseconds interval) {
  const MutexLock lock(mutex_);
  if (ending_ || attempt.stops != StopsOf(attempt.domain)) return nullptr;
  if (attempt.domain == MonitorDomain::kWan || !crypto_) crypto_ = crypto;
  on_.Of(attempt.domain) = true;
  interval_ = interval;
  period_.Renew();
  started_ = true;
  wake_.NotifyAll();
  return crypto_;
}

void MonitorSwitches::SwitchOff(MonitorDomain domain, bool expired) {
  if (on_.Of(domain)) end_ = {domain, expired};
  on_.Of(domain) = false;
}

void MonitorSwitches::SwitchAllOff(bool expired) {
  SwitchOff(MonitorDomain::kLan, expired);
  SwitchOff(MonitorDomain::kWan, expired);
}

void MonitorSwitches::TurnOff(MonitorDomain domain) {
  const MutexLock lock(mutex_);
  ++(domain == MonitorDomain::kWan ? wan_stops_ : lan_stops_);
  SwitchOff(domain, false);
  wake_.NotifyAll();
}

void MonitorSwitches::RequestEnd() {
  const MutexLock lock(mutex_);
  ending_ = true;
  SwitchAllOff(false);
  wake_.NotifyAll();
}

bool MonitorSwitches::AwaitOn() {
  MutexLock lock(mutex_);
  wake_.Wait(lock, [this]() REQUIRES(mutex_) { return ending_ || on_.Any(); });
  return !ending_;
}

std::optional<MonitorSwitches::Round> MonitorSwitches::NextRound() {
  const MutexLock lock(mutex_);
  const bool started = std::exchange(started_, false);
  const MonitorPeriod::Look look = period_.At(clock_.Now());
  if (look.over) SwitchAllOff(true);
  if (!on_.Any()) return std::nullopt;
  return Round{on_, look.remaining_s, interval_, crypto_, started};
}

void MonitorSwitches::Pause(utils::Clock::TimePoint until) {
  MutexLock lock(mutex_);
  const auto now = clock_.Now();
  const auto ready = [this]() REQUIRES(mutex_) { return started_ || !on_.Any(); };
  if (until > now)
    (void)clock_.WaitUntil(lock, wake_, std::min(until, period_.NextTurn(now)), ready);
}

bool MonitorSwitches::MayUpload(const Round& round) const {
  const MutexLock lock(mutex_);
  return on_.wan && round.crypto == crypto_;
}

MonitorSwitches::End MonitorSwitches::LastEnd() const {
  const MutexLock lock(mutex_);
  return end_;
}

}  // namespace varnel::service

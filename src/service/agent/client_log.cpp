#include "service/agent/client_log.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "LOGU";
constexpr std::chrono::seconds kPause{1};
constexpr std::chrono::seconds kLongestPause{32};
constexpr long kUnauthorized = 401;
constexpr long kServerError = 500;

int64_t MillisecondsOf(utils::Clock::WallTime time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

}  // namespace

ClientLog::ClientLog(DeviceAuthentication& authentication, std::string path,
                     std::function<bool()> may_send)
    : authentication_(authentication),
      path_(std::move(path)),
      may_send_(std::move(may_send)),
      http_({.post_once = true}, authentication.Setup().stop, *authentication.Setup().clock) {}

void ClientLog::PostClientLog(const char* level, const std::string& message) {
  VLOG_INFO(kTag, "client log: {} {}", level, utils::LogText(message));
  if (path_.empty()) return;
  utils::Clock& clock = *authentication_.Setup().clock;
  const utils::MutexLock starting(starting_);
  if (Keep({level, message, MillisecondsOf(clock.WallNow())})) return;
  try {
    task_.emplace("client-log", kTag, clock, [this](const auto& pause) { Run(pause); });
  } catch (...) {  // no thread left: the next report tries again
    const utils::MutexLock lock(mutex_);
    running_ = false;
    throw;
  }
}

/// Whether there is a thread for it.
bool ClientLog::Keep(Report report) {
  const utils::MutexLock lock(mutex_);
  if (kept_.size() == kMaxKept) kept_.pop_front();
  kept_.push_back(std::move(report));
  return std::exchange(running_, true);
}

void ClientLog::Run(const utils::PausingThread::Pause& pause) {
  try {
    SendAll(pause);
  } catch (...) {  // the next report starts another one
    const utils::MutexLock lock(mutex_);
    running_ = false;
    throw;
  }
}

void ClientLog::SendAll(const utils::PausingThread::Pause& pause) {
  for (auto time = kPause; pause(time);) {
    const auto report = Oldest();
    if (!report) return;
    const bool sent = may_send_() && Send(*report);
    if (sent) Forget(*report);
    time = sent ? kPause : std::min(time * 2, kLongestPause);
  }
}

/// Without one the thread ends.
std::optional<ClientLog::Report> ClientLog::Oldest() {
  const utils::MutexLock lock(mutex_);
  running_ = !kept_.empty();
  return running_ ? std::optional(kept_.front()) : std::nullopt;
}

void ClientLog::Forget(const Report& sent) {
  const utils::MutexLock lock(mutex_);
  // It may have made room for a newer one meanwhile.
  if (!kept_.empty() && kept_.front().time_ms == sent.time_ms &&
      kept_.front().message == sent.message)
    kept_.pop_front();
}

bool ClientLog::Send(const Report& report) {
  const auto access = authentication_.AccessTo(authentication_.Region());
  if (!access || !access->token) return false;
  const HttpResponse response =
      http_.Post(access->base_url + path_,
                 {{"level", report.level},
                  {"message", report.message},
                  {"time", report.time_ms},
                  {"sn", authentication_.SerialNumber()}},
                 authentication_.DeviceHeaders(access->base_url), access->token);
  if (response.status == kUnauthorized) authentication_.OnRefused(access->token);
  return response.status != 0 && response.status != kUnauthorized && response.status < kServerError;
}

}  // namespace varnel::service

#include "service/agent/client_log.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AGENT";
constexpr std::chrono::seconds kPause{1};
constexpr long kClientError = 400;

int64_t MillisecondsOf(utils::Clock::WallTime time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

}  // namespace

ClientLog::ClientLog(DeviceAuthentication& authentication, std::string path,
                     std::function<std::string()> region)
    : authentication_(authentication),
      path_(std::move(path)),
      region_(std::move(region)),
      http_({.post_once = true}, authentication.Setup().stop, *authentication.Setup().clock) {}

void ClientLog::PostClientLog(const char* level, const std::string& message) {
  VLOG_INFO(kTag, "client log: {} {}", level, utils::LogText(message));
  if (path_.empty()) return;
  utils::Clock& clock = *authentication_.Setup().clock;
  const utils::MutexLock starting(starting_);
  if (Keep({level, message, MillisecondsOf(clock.WallNow())})) return;
  task_.emplace("client-log", kTag, clock, [this](const auto& pause) { Run(pause); });
}

/// Whether there is a thread for it.
bool ClientLog::Keep(Report report) {
  const utils::MutexLock lock(mutex_);
  if (kept_.size() == kMaxKept) kept_.pop_front();
  kept_.push_back(std::move(report));
  return std::exchange(running_, true);
}

void ClientLog::Run(const utils::PausingThread::Pause& pause) {
  while (pause(kPause)) {
    const auto report = Oldest();
    if (!report) return;
    if (Send(*report)) Forget(*report);
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
  const auto access = authentication_.AccessTo(region_());
  if (!access || !access->token) return false;
  const HttpResponse response =
      http_.Post(access->base_url + path_,
                 {{"level", report.level},
                  {"message", report.message},
                  {"time", report.time_ms},
                  {"sn", authentication_.SerialNumber()}},
                 authentication_.DeviceHeaders(access->base_url), access->token);
  return response.status != 0 && response.status < kClientError;
}

}  // namespace varnel::service

#include "service/agent/auth/country_code.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AUTH";
constexpr int kAttempts = 3;
constexpr std::chrono::seconds kDeadline{60};
constexpr std::chrono::seconds kPause{5};
constexpr long kSuccess = 200;

bool IsCountryCode(const std::string& text) {
  return text.size() == 2 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

/// It may stand at the top of the reply or in its data.
std::string CodeIn(const nlohmann::json& reply) {
  const auto in = [](const nlohmann::json& holder) {
    const auto code = holder.find("countryCode");
    return code != holder.end() && code->is_string() ? code->get<std::string>() : "";
  };
  const auto data = reply.find("data");
  std::string code = data != reply.end() && data->is_object() ? in(*data) : "";
  return code.empty() ? in(reply) : code;
}

}  // namespace

CountryCode::CountryCode(Fetch fetch, utils::Clock& clock)
    : fetch_(std::move(fetch)), clock_(clock) {}

void CountryCode::StartFetchCountryCode() {
  const utils::MutexLock lock(mutex_);
  if (!code_.empty() || running_) return;
  try {
    // The last one has ended, or is about to: it touches nothing any more.
    task_.emplace("country-code", kTag, clock_,
                  [this](const utils::PausingThread::Pause& pause) { Run(pause); });
    running_ = true;
  } catch (const std::system_error& error) {
    VLOG_ERROR(kTag, "The country code cannot be asked for: {}", error.what());
  }
}

std::string CountryCode::Get() const {
  const utils::MutexLock lock(mutex_);
  return code_;
}

void CountryCode::Run(const utils::PausingThread::Pause& pause) {
  std::string code;
  try {
    code = Fetched(pause);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "FetchCCFromAPI parse error: {}", utils::LogText(error.what()));
  }
  if (!code.empty()) VLOG_INFO(kTag, "cc: {}", code);
  const utils::MutexLock lock(mutex_);
  code_ = std::move(code);
  running_ = false;
}

std::string CountryCode::Fetched(const utils::PausingThread::Pause& pause) const {
  const auto deadline = clock_.Now() + kDeadline;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    if (clock_.Now() >= deadline) {
      VLOG_WARN(kTag, "cc fetch deadline exceeded, giving up");
      break;
    }
    std::string code = FetchCCFromAPI();
    if (!code.empty()) return code;
    VLOG_WARN(kTag, "cc attempt {}/3 failed", attempt);
    if (attempt < kAttempts && !pause(kPause)) break;
  }
  return {};
}

std::string CountryCode::FetchCCFromAPI() const {
  const HttpResponse response = fetch_();
  if (response.status == 0) {
    VLOG_ERROR(kTag, "FetchCCFromAPI: network error");
    return {};
  }
  if (response.status != kSuccess) {
    VLOG_ERROR(kTag, "FetchCCFromAPI: HTTP {}", response.status);
    return {};
  }
  const auto reply = ParseReply(response.body);
  std::string code = reply && reply->is_object() ? CodeIn(*reply) : "";
  if (IsCountryCode(code)) return code;
  VLOG_ERROR(kTag, "FetchCCFromAPI parse error: {}", "there are no two capitals");
  return {};
}

}  // namespace varnel::service

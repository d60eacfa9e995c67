#include "service/agent/auth/country_code.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"
#include "utils/thread.h"

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
  const nlohmann::json* holder = &reply;
  if (const auto data = reply.find("data"); data != reply.end() && data->is_object())
    holder = &*data;
  const auto code = holder->find("countryCode");
  return code != holder->end() && code->is_string() ? code->get<std::string>() : "";
}

}  // namespace

CountryCode::CountryCode(Fetch fetch, utils::Clock& clock)
    : fetch_(std::move(fetch)), clock_(clock) {}

CountryCode::~CountryCode() {
  {
    const std::lock_guard lock(mutex_);
    thread_.request_stop();
  }
  wake_.notify_all();
}

void CountryCode::StartFetchCountryCode() {
  const std::lock_guard lock(mutex_);
  if (!code_.empty() || std::exchange(running_, true)) return;
  // The last one has ended, or is about to: it touches nothing any more.
  thread_ =
      utils::SpawnGuarded("country-code", kTag, [this](const std::stop_token& stop) { Run(stop); });
}

std::string CountryCode::Get() const {
  const std::lock_guard lock(mutex_);
  return code_;
}

void CountryCode::Run(const std::stop_token& stop) {
  const auto deadline = clock_.Now() + kDeadline;
  std::string code;
  for (int attempt = 1; attempt <= kAttempts && code.empty() && !stop.stop_requested(); ++attempt) {
    if (clock_.Now() >= deadline) {
      VLOG_WARN(kTag, "cc fetch deadline exceeded, giving up");
      break;
    }
    code = FetchCCFromAPI();
    if (!code.empty()) break;
    VLOG_WARN(kTag, "cc attempt {}/3 failed", attempt);
    std::unique_lock lock(mutex_);
    clock_.WaitUntil(lock, wake_, clock_.Now() + kPause, [&] { return stop.stop_requested(); });
  }
  if (!code.empty()) VLOG_INFO(kTag, "cc: {}", code);
  const std::lock_guard lock(mutex_);
  code_ = std::move(code);
  running_ = false;
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
  const auto reply = nlohmann::json::parse(response.body, nullptr, false);
  std::string code = reply.is_object() ? CodeIn(reply) : "";
  if (IsCountryCode(code)) return code;
  VLOG_ERROR(kTag, "FetchCCFromAPI parse error: {}", "there are no two capitals");
  return {};
}

}  // namespace varnel::service

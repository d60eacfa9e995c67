#include "service/cloud/cloud_access.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "service/cloud/http/http_request.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "CLDI";
constexpr long kUnauthorized = 401;
constexpr long kForbidden = 403;
constexpr long kClientError = 400;
constexpr long kServerError = 500;
/// An answer names an address for each part of a file.
constexpr size_t kMaxReplyBytes = size_t{16} << 20U;
constexpr size_t kKeptClients = 2;

/// Empty for a URL of another server: the token is not for it.
std::string UrlOf(const std::string& where, const std::string& base_url) {
  if (where.starts_with('/')) return base_url + where;
  return where.starts_with(base_url + '/') ? where : std::string();
}

void TellOutcome(const std::string& tag, const HttpResponse& response) {
  if (response.status >= kServerError) {
    VLOG_WARN(kTag, "POST [{}] server error HTTP {}, body_len={}", tag, response.status,
              response.body.size());
  } else if (response.status >= kClientError) {
    VLOG_WARN(kTag, "POST [{}] client error HTTP {}, body_len={}", tag, response.status,
              response.body.size());
  }
}

}  // namespace

CloudAccess::CloudAccess(TransferStop stop, utils::Clock& clock)
    : stop_(std::move(stop)), clock_(clock) {
  VLOG_INFO(kTag, "CURL initialization.");
}

void CloudAccess::SetSource(Source source) {
  const utils::MutexLock lock(mutex_);
  source_ = std::move(source);
  access_.reset();
}

CloudAccess::Source CloudAccess::CurrentSource() const {
  const utils::MutexLock lock(mutex_);
  return source_;
}

int CloudAccess::GetAccess() {
  try {
    auto access = FindAccess(CurrentSource());
    const bool found = access.has_value();
    const utils::MutexLock lock(mutex_);
    access_ = std::move(access);
    return found ? 0 : -1;
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Get access: exception {}", error.what());
    return -1;
  }
}

std::optional<CloudAccess::Access> CloudAccess::FindAccess(const Source& source) const {
  const auto fail = [](const char* text) {
    VLOG_ERROR(kTag, "{}", text);
    return std::nullopt;
  };
  if (!source.agent) return fail("Get access: agent not set.");
  if (source.agent->State() != AgentState::CONNECTED)
    return fail("Get access: agent not connected.");
  if (!source.authentication) return fail("Authentication instance not initialized");
  const std::string region = source.authentication->Region();
  auto access = source.authentication->AccessTo(region);
  if (!access) return fail("Get access: invalid region or server domain.");
  if (!access->token) return fail("Get access: token is empty.");
  VLOG_INFO(kTag, "Get access: {} success.", region);
  return access;
}

bool CloudAccess::Holds(const Access& access, const Source& source) {
  if (!source.agent || source.agent->State() != AgentState::CONNECTED) return false;
  const auto now = source.authentication
                       ? source.authentication->AccessTo(source.authentication->Region())
                       : std::nullopt;
  return now && now->base_url == access.base_url && now->token == access.token;
}

std::optional<CloudAccess::Access> CloudAccess::CurrentAccess() {
  const Source source = CurrentSource();
  std::optional<Access> access;
  {
    const utils::MutexLock lock(mutex_);
    access = access_;
  }
  if (access && Holds(*access, source)) return access;
  access = FindAccess(source);
  const utils::MutexLock lock(mutex_);
  return access_ = access;
}

std::optional<CloudAccess::Access> CloudAccess::RenewedAccess(const Access& refused) {
  const Source source = CurrentSource();
  if (!source.agent || source.agent->State() != AgentState::CONNECTED) return std::nullopt;
  if (!source.authentication || !source.authentication->RefreshToken(refused.token))
    return std::nullopt;
  return CurrentAccess();
}

std::string CloudAccess::Server() {
  const auto access = CurrentAccess();
  return access ? access->base_url : std::string();
}

std::string CloudAccess::Post(const std::string& where, const nlohmann::json& document,
                              const RequestOptions& options) {
  try {
    return PostOrThrow({where, document, options});
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "POST exception {}", utils::LogText(error.what()));
    return {};
  }
}

std::string CloudAccess::PostOrThrow(const Question& question) {
  const auto access = CurrentAccess();
  const std::string url = access ? UrlOf(question.where, access->base_url) : std::string();
  if (url.empty()) {
    VLOG_ERROR(kTag, "API is unavailable.");
    return {};
  }
  const std::string tag = UrlTag(url);
  HttpResponse response = Send(*access, url, question);
  if (response.status == 0) {
    VLOG_ERROR(kTag, "POST [{}] network error, no HTTP response", tag);
    return {};
  }
  if (response.status == kUnauthorized || response.status == kForbidden) {
    VLOG_WARN(kTag, "POST [{}] got HTTP {}, refreshing token and retrying", tag, response.status);
    response = SendAgain(*access, tag, question);
    if (response.status == 0) return {};
  }
  TellOutcome(tag, response);
  return std::move(response.body);
}

HttpResponse CloudAccess::SendAgain(const Access& refused, const std::string& tag,
                                    const Question& question) {
  const auto access = RenewedAccess(refused);
  const std::string url = access ? UrlOf(question.where, access->base_url) : std::string();
  if (url.empty()) {
    VLOG_ERROR(kTag, "POST [{}] token refresh failed", tag);
    return {};
  }
  HttpResponse response = Send(*access, url, question);
  if (response.status == 0) VLOG_ERROR(kTag, "POST [{}] network error on retry", UrlTag(url));
  return response;
}

HttpResponse CloudAccess::Send(const Access& access, const std::string& url,
                               const Question& question) {
  const Source source = CurrentSource();
  if (!source.authentication) return {};
  auto client = TakeClient();
  HttpResponse response =
      client->Post(url, question.document, source.authentication->DeviceHeaders(access.base_url),
                   access.token, question.options);
  GiveBack(std::move(client));
  return response;
}

std::unique_ptr<HttpClient> CloudAccess::TakeClient() {
  {
    const utils::MutexLock lock(mutex_);
    if (!idle_.empty()) {
      auto client = std::move(idle_.back());
      idle_.pop_back();
      return client;
    }
  }
  return std::make_unique<HttpClient>(
      HttpSettings{.max_body_bytes = kMaxReplyBytes, .post_once = true}, stop_, clock_);
}

void CloudAccess::GiveBack(std::unique_ptr<HttpClient> client) {
  const utils::MutexLock lock(mutex_);
  if (idle_.size() < kKeptClients) idle_.push_back(std::move(client));
}

}  // namespace varnel::service

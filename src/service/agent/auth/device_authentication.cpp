#include "service/agent/auth/device_authentication.h"

#include <exception>
#include <utility>

#include "service/agent/auth/signature.h"
#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "MA_AUTH";
constexpr const char* kTokenPath = "/api/oauth2/token";
constexpr const char* kCertificatePath = "/api/device/getMqttCert";
constexpr const char* kOldestFirmware = "1.1.1";
constexpr int kSuccess = 200;

}  // namespace

DeviceAuthentication::DeviceAuthentication(AuthenticationSetup setup)
    : setup_(std::move(setup)),
      store_(setup_.certificates, *setup_.clock),
      tokens_http_({.post_once = true}, setup_.stop, *setup_.clock),
      country_http_({}, setup_.stop, *setup_.clock),
      certs_http_({}, setup_.stop, *setup_.clock),
      country_code_(
          [this] {
            const auto target = TargetNow();
            if (!target || setup_.country_code_path.empty()) return HttpResponse{};
            return country_http_.Get(target->base_url + setup_.country_code_path, json::object(),
                                     DeviceHeaders(target->base_url));
          },
          *setup_.clock) {}

void DeviceAuthentication::SetRegion(const std::string& region) {
  std::string used = region;
  if (IsRegion(setup_.places, region)) {
    VLOG_INFO(kTag, "SetRegion: region is valid: {}", utils::LogText(region));
  } else {
    used = setup_.places.default_region;
    VLOG_ERROR(kTag, "SetRegion: region is not valid: {}, using default region: {}",
               utils::LogText(region), used);
  }
  if (Region() != used) ForgetTokens();
  const utils::MutexLock lock(mutex_);
  region_ = std::move(used);
}

std::string DeviceAuthentication::Region() const {
  const utils::MutexLock lock(mutex_);
  return region_;
}

std::optional<DeviceAuthentication::Target> DeviceAuthentication::TargetNow() const {
  Target target;
  {
    const utils::MutexLock lock(mutex_);
    target.region = region_;
    target.time = time_;
  }
  auto base_url = BaseUrl(setup_.places, target.region);
  if (!base_url) return std::nullopt;
  target.base_url = std::move(*base_url);
  return target;
}

std::string DeviceAuthentication::SignFor(const std::string& operate,
                                          const std::string& nonce) const {
  return Sign(SignedText(setup_.serial_number, operate, nonce),
              setup_.private_key ? setup_.private_key->Text() : std::string_view());
}

HttpHeaders DeviceAuthentication::DeviceHeaders(const std::string& base_url,
                                                const std::string& firmware) const {
  const std::string& known =
      setup_.firmware_version.empty() ? kOldestFirmware : setup_.firmware_version;
  return {"X-Custom-Site: Device",
          "X-Custom-Firmware-Version: " + (firmware.empty() ? known : firmware),
          "X-Custom-CC: " + country_code_.Get(), "X-Custom-CS: " + SiteOf(base_url)};
}

std::string DeviceAuthentication::DeviceGrant(int64_t lifetime_h) const {
  const std::string nonce = MakeNonce();
  const std::string signature = SignFor("", nonce);
  const std::string lifetime = std::to_string(lifetime_h);
  return FormBody({{"grant_type", "tarvolent_device"},
                   {"sign", signature},
                   {"sn", setup_.serial_number},
                   {"nonce", nonce},
                   {"refresh", "false"},
                   {"scope", "mqtt"},
                   {"total_pt", lifetime},
                   {"ver", kOldestFirmware}});
}

std::optional<std::string> DeviceAuthentication::PostForm(const Target& target,
                                                          const std::string& form,
                                                          const char* failure) {
  HttpResponse response =
      tokens_http_.PostRaw(target.base_url + kTokenPath, form, kTokenContentType,
                           DeviceHeaders(target.base_url, kOldestFirmware));
  if (response.status != 0) return std::move(response.body);
  VLOG_ERROR(kTag, "{}", failure);
  return std::nullopt;
}

TokenResult DeviceAuthentication::RequestOauth2Token(int64_t lifetime_h, TokenPair& tokens,
                                                     const Target& target) {
  auto reply = PostForm(target, DeviceGrant(lifetime_h), "RequestOauth2Token: network error");
  if (!reply) {
    VLOG_ERROR(kTag, "Failed to get OAuth2 token");
    return TokenResult::kFailed;
  }
  const TokenResult result = ReadGrantReply(*reply, tokens);
  utils::Wipe(*reply);
  if (result == TokenResult::kFailed) VLOG_ERROR(kTag, "Failed to parse OAuth2 token");
  return result;
}

bool DeviceAuthentication::GetAccessToken(int64_t lifetime_h) {
  region_locked_ = false;
  const utils::MutexLock one(refresh_mutex_);
  try {
    const auto target = TargetNow();
    if (!target) {
      VLOG_ERROR(kTag, "invalid region: {}", utils::LogText(Region()));
      return false;
    }
    TokenPair tokens;
    const TokenResult result = RequestOauth2Token(lifetime_h, tokens, *target);
    region_locked_ = result == TokenResult::kRegionLocked;
    return result == TokenResult::kOk && Adopt(std::move(tokens), *target);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "GetAccessToken exception: {}", utils::LogText(error.what()));
    return false;
  }
}

TokenResult DeviceAuthentication::FetchAccessToken(const TokenPair& old, TokenPair& tokens,
                                                   const Target& target) {
  std::string form =
      FormBody({{"grant_type", "refresh_token"}, {"refresh_token", old.refresh->Text()}});
  auto reply = PostForm(target, form, "FetchAccessToken: network error");
  utils::Wipe(form);
  if (!reply) return TokenResult::kFailed;
  const TokenResult result = ReadRefreshReply(*reply, tokens);
  utils::Wipe(*reply);
  return result;
}

bool DeviceAuthentication::RefreshToken(const utils::SharedSecret& refused) {
  const uint64_t ended = refreshes_;
  const utils::MutexLock one(refresh_mutex_);
  const auto access = AccessTo(Region());
  const bool replaced =
      refused && access && access->token && access->token->Text() != refused->Text();
  if (replaced) return true;
  // Who waited for another one's attempt takes its outcome: an outage is met once.
  if (refreshes_ != ended) return refreshed_;
  refreshed_ = Refresh();
  ++refreshes_;
  if (!refreshed_) VLOG_ERROR(kTag, "Failed to fetch access token");
  return refreshed_;
}

bool DeviceAuthentication::Refresh() {
  try {
    const auto target = TargetNow();
    if (!target) {
      VLOG_ERROR(kTag, "invalid region: {}", utils::LogText(Region()));
      return false;
    }
    const TokenPair old = TokensOf(target->base_url);
    TokenPair tokens;
    return old.refresh && FetchAccessToken(old, tokens, *target) == TokenResult::kOk &&
           Adopt(std::move(tokens), *target);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Failed to parse access token: {}", utils::LogText(error.what()));
    return false;
  }
}

bool DeviceAuthentication::Adopt(TokenPair tokens, const Target& target) {
  const utils::MutexLock lock(mutex_);
  if (time_ != target.time) {
    VLOG_WARN(kTag, "The tokens of {} came too late", utils::LogText(target.region));
    return false;
  }
  if (tokens.access && tokens.access->Text().empty()) tokens.access = nullptr;
  tokens_ = std::move(tokens);
  issuer_ = target.base_url;
  refused_ = false;
  return true;
}

void DeviceAuthentication::OnRefused(const utils::SharedSecret& token) {
  const utils::MutexLock lock(mutex_);
  if (token && token == tokens_.access) refused_ = true;
}

bool DeviceAuthentication::IsTokenRefused() const {
  const utils::MutexLock lock(mutex_);
  return refused_;
}

bool DeviceAuthentication::HasToken() const {
  const auto access = AccessTo(Region());
  return access && access->token;
}

void DeviceAuthentication::ForEachSecret(
    const std::function<void(std::string_view secret)>& visit) const {
  const TokenPair tokens = [this] {
    const utils::MutexLock lock(mutex_);
    return tokens_;
  }();
  for (const utils::SharedSecret& secret : {setup_.private_key, tokens.access, tokens.refresh})
    if (secret) visit(secret->Text());
}

TokenPair DeviceAuthentication::TokensOf(const std::string& base_url) const {
  const utils::MutexLock lock(mutex_);
  return issuer_ == base_url ? tokens_ : TokenPair{};
}

std::optional<DeviceAuthentication::Access> DeviceAuthentication::AccessTo(
    const std::string& region) const {
  auto base_url = BaseUrl(setup_.places, region);
  if (!base_url) return std::nullopt;
  auto token = TokensOf(*base_url).access;
  return Access{std::move(*base_url), std::move(token)};
}

void DeviceAuthentication::ForgetTokens() {
  const utils::MutexLock lock(mutex_);
  tokens_ = {};
  ++time_;
}

std::optional<json> DeviceAuthentication::AuthInfo() const {
  const utils::MutexLock lock(mutex_);
  return auth_info_;
}

void DeviceAuthentication::ClearAuthInfo() {
  const utils::MutexLock lock(mutex_);
  auth_info_.reset();
}

void DeviceAuthentication::RemoveClientCertificates() {
  ClearAuthInfo();
  unsaved_.reset();
  store_.Remove();
}

void DeviceAuthentication::Keep(json info, const Target& target) {
  info["region"] = target.region;
  const utils::MutexLock lock(mutex_);
  auth_info_ = std::move(info);
}

bool DeviceAuthentication::GetAuthInfo() {
  const auto target = TargetNow();
  if (!target) {
    VLOG_ERROR(kTag, "invalid region: {}", utils::LogText(Region()));
    return false;
  }
  try {
    auto info = store_.LoadAuthInfoFromCache({target->region, target->base_url});
    const bool expired = CheckCertExpired();
    if (info && !expired && !cache_distrusted_) {
      VLOG_INFO(kTag, "Using cached auth info, skipping GetMqttCerts");
    } else {
      auto fresh = FetchAuthInfo(*target, expired);
      cache_distrusted_ &= !fresh;
      // Without an answer what is on the disk is all that there is.
      if (fresh || expired || unsaved_) info = std::move(fresh);
    }
    if (!info) return false;
    Keep(std::move(*info), *target);
    return true;
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "GetAuthInfo exception: {}", utils::LogText(error.what()));
    return false;
  }
}

std::optional<json> DeviceAuthentication::FetchAuthInfo(const Target& target, bool expired) {
  if (!unsaved_ || unsaved_->target != target) unsaved_ = FetchBrokerAccess(target, expired);
  if (!unsaved_) return std::nullopt;
  auto info = store_.Save(unsaved_->access);
  if (!info) return std::nullopt;
  store_.SaveAuthInfoToCache(*info, {target.region, target.base_url});
  unsaved_.reset();
  return info;
}

std::optional<DeviceAuthentication::Fetched> DeviceAuthentication::FetchBrokerAccess(
    const Target& target, bool expired) {
  if (expired) {
    VLOG_WARN(kTag, "Client certificate expired, refresh CA!");
    VLOG_INFO(kTag, "Refresh CA!");
  } else {
    VLOG_INFO(kTag, "Won't refresh CA!");
  }
  const auto reply = GetMqttCerts(expired, target);
  if (!reply) {
    VLOG_ERROR(kTag, "Failed to get MQTT certs");
    return std::nullopt;
  }
  auto access = ReadBrokerAccess(*reply, setup_.credential_key);
  if (access) return Fetched{target, *std::move(access)};
  VLOG_ERROR(kTag, "Failed to parse MQTT certs");
  return std::nullopt;
}

std::optional<json> DeviceAuthentication::GetMqttCerts(bool refresh, const Target& target) {
  HttpResponse response = certs_http_.Get(
      target.base_url + kCertificatePath + (refresh ? "?refresh=true" : "?refresh=false"),
      json::object(), DeviceHeaders(target.base_url), TokensOf(target.base_url).access);
  if (response.status == 0) {
    VLOG_ERROR(kTag, "GetMqttCerts error: {}", "network error");
    return std::nullopt;
  }
  auto reply = ParseReply(response.body);
  utils::Wipe(response.body);  // there may be a key in it
  if (!reply || !reply->is_object()) {
    VLOG_ERROR(kTag, "GetMqttCerts: invalid response: {} bytes, HTTP {}", response.body.size(),
               response.status);
    return std::nullopt;
  }
  const auto code = reply->find("code");
  if (code == reply->end() || *code != kSuccess) {
    VLOG_ERROR(kTag, "GetMqttCerts: unexpected code: {}",
               code == reply->end() ? "none"
               : code->is_number()  ? code->dump()
                                    : code->type_name());
    return std::nullopt;
  }
  const auto data = reply->find("data");
  if (data == reply->end() || !data->is_object()) {
    VLOG_ERROR(kTag, "GetMqttCerts: invalid data field: {}",
               data == reply->end() ? "none" : data->type_name());
    return std::nullopt;
  }
  return reply;
}

}  // namespace varnel::service

#include "service/agent/auth/device_authentication.h"

#include <exception>
#include <utility>

#include "service/agent/auth/signature.h"
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
constexpr size_t kLoggedReply = 160;

/// What a reply holds may be a secret: its shape is told, not its content.
std::string ShapeOf(const HttpResponse& response, const json& reply) {
  return std::string(reply.type_name()) + " of " + std::to_string(response.body.size()) +
         " bytes, HTTP " + std::to_string(response.status);
}

}  // namespace

DeviceAuthentication::DeviceAuthentication(AuthenticationSetup setup)
    : setup_(std::move(setup)),
      store_(setup_.certificates, *setup_.clock),
      tokens_http_({}, setup_.stop, *setup_.clock),
      country_http_({}, setup_.stop, *setup_.clock),
      api_({.bearer_token = [this] { return AccessToken(); }}, setup_.stop, *setup_.clock),
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
  if (BaseUrl(setup_.places, region)) {
    VLOG_INFO(kTag, "SetRegion: region is valid: {}", utils::LogText(region));
  } else {
    used = setup_.places.default_region;
    VLOG_ERROR(kTag, "SetRegion: region is not valid: {}, using default region: {}",
               utils::LogText(region), used);
  }
  const std::lock_guard lock(mutex_);
  if (region_ != used) tokens_ = {};
  region_ = std::move(used);
}

std::string DeviceAuthentication::Region() const {
  const std::lock_guard lock(mutex_);
  return region_;
}

std::optional<DeviceAuthentication::Target> DeviceAuthentication::TargetNow() const {
  std::string region = Region();
  auto base_url = BaseUrl(setup_.places, region);
  if (!base_url) return std::nullopt;
  return Target{std::move(region), std::move(*base_url)};
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
                                                     Target& target) {
  const auto now = TargetNow();
  if (!now) {
    VLOG_ERROR(kTag, "invalid region: {}", utils::LogText(Region()));
    return TokenResult::kFailed;
  }
  target = *now;
  auto reply = PostForm(target, DeviceGrant(lifetime_h), "RequestOauth2Token: network error");
  if (!reply) {
    VLOG_ERROR(kTag, "Failed to get OAuth2 token");
    return TokenResult::kFailed;
  }
  const TokenResult result = ReadGrantReply(*reply, tokens);
  utils::Wipe(reply->data(), reply->size());
  if (result == TokenResult::kFailed) VLOG_ERROR(kTag, "Failed to parse OAuth2 token");
  return result;
}

bool DeviceAuthentication::GetAccessToken(int64_t lifetime_h) {
  region_locked_ = false;
  const std::lock_guard one(refresh_mutex_);
  try {
    TokenPair tokens;
    Target target;
    const TokenResult result = RequestOauth2Token(lifetime_h, tokens, target);
    region_locked_ = result == TokenResult::kRegionLocked;
    return result == TokenResult::kOk && Adopt(std::move(tokens), target);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "GetAccessToken exception: {}", utils::LogText(error.what()));
    return false;
  }
}

TokenResult DeviceAuthentication::FetchAccessToken(const TokenPair& old, TokenPair& tokens,
                                                   Target& target) {
  const auto now = TargetNow();
  if (!now) {
    VLOG_ERROR(kTag, "invalid region: {}", utils::LogText(Region()));
    return TokenResult::kFailed;
  }
  target = *now;
  std::string form =
      FormBody({{"grant_type", "refresh_token"},
                {"refresh_token", old.refresh ? old.refresh->Text() : std::string_view()}});
  auto reply = PostForm(target, form, "FetchAccessToken: network error");
  utils::Wipe(form.data(), form.size());
  if (!reply) return TokenResult::kFailed;
  const TokenResult result = ReadRefreshReply(*reply, tokens);
  utils::Wipe(reply->data(), reply->size());
  return result;
}

bool DeviceAuthentication::RefreshToken(const utils::SharedSecret& refused) {
  const std::lock_guard one(refresh_mutex_);
  const TokenPair old = Tokens();
  const bool replaced = refused && old.access && old.access->Text() != refused->Text();
  if (replaced) return true;
  try {
    TokenPair tokens;
    Target target;
    if (FetchAccessToken(old, tokens, target) == TokenResult::kOk &&
        Adopt(std::move(tokens), target)) {
      return true;
    }
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Failed to parse access token: {}", utils::LogText(error.what()));
  }
  VLOG_ERROR(kTag, "Failed to fetch access token");
  return false;
}

/// A region that was left while the request ran gets no token of the old one.
bool DeviceAuthentication::Adopt(TokenPair tokens, const Target& target) {
  const std::lock_guard lock(mutex_);
  if (region_ != target.region) return false;
  tokens_ = std::move(tokens);
  return true;
}

TokenPair DeviceAuthentication::Tokens() const {
  const std::lock_guard lock(mutex_);
  return tokens_;
}

utils::SharedSecret DeviceAuthentication::AccessToken() const {
  return Tokens().access;
}

void DeviceAuthentication::ForgetTokens() {
  const std::lock_guard lock(mutex_);
  tokens_ = {};
}

std::optional<json> DeviceAuthentication::AuthInfo() const {
  const std::lock_guard lock(mutex_);
  return auth_info_;
}

void DeviceAuthentication::ClearAuthInfo() {
  const std::lock_guard lock(mutex_);
  auth_info_.reset();
}

void DeviceAuthentication::RemoveClientCertificates() {
  ClearAuthInfo();
  store_.Remove();
}

void DeviceAuthentication::Keep(json info, const Target& target) {
  info["region"] = target.region;
  const std::lock_guard lock(mutex_);
  auth_info_ = std::move(info);
}

bool DeviceAuthentication::GetAuthInfo() {
  const auto target = TargetNow();
  if (!target) {
    VLOG_ERROR(kTag, "invalid region: {}", utils::LogText(Region()));
    return false;
  }
  try {
    auto info = store_.LoadAuthInfoFromCache(target->region);
    if (info && !CheckCertExpired()) {
      VLOG_INFO(kTag, "Using cached auth info, skipping GetMqttCerts");
    } else {
      info = FetchAuthInfo(*target);
    }
    if (!info) return false;
    Keep(std::move(*info), *target);
    return true;
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "GetAuthInfo exception: {}", utils::LogText(error.what()));
    return false;
  }
}

std::optional<json> DeviceAuthentication::FetchAuthInfo(const Target& target) {
  // A board that never had one asks for its certificate, and not for another one.
  const bool expired = store_.HasCertificate() && CheckCertExpired();
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
  const auto access = ReadBrokerAccess(*reply, setup_.credential_key);
  if (!access) {
    VLOG_ERROR(kTag, "Failed to parse MQTT certs");
    return std::nullopt;
  }
  const auto info = store_.Save(*access);
  if (info) store_.SaveAuthInfoToCache(*info, target.region);
  return info;
}

std::optional<json> DeviceAuthentication::GetMqttCerts(bool refresh, const Target& target) {
  const HttpResponse response =
      api_.Get(target.base_url + kCertificatePath + (refresh ? "?refresh=true" : "?refresh=false"),
               json::object(), DeviceHeaders(target.base_url));
  if (response.status == 0) {
    VLOG_ERROR(kTag, "GetMqttCerts error: {}", "network error");
    return std::nullopt;
  }
  json reply = json::parse(response.body, nullptr, false);
  if (!reply.is_object()) {
    VLOG_ERROR(kTag, "GetMqttCerts: invalid response: {}", ShapeOf(response, reply));
    return std::nullopt;
  }
  const auto code = reply.find("code");
  if (code == reply.end() || *code != kSuccess) {
    VLOG_ERROR(kTag, "GetMqttCerts: unexpected code: {}",
               code == reply.end() ? "none" : utils::LogText(code->dump(), kLoggedReply));
    return std::nullopt;
  }
  const auto data = reply.find("data");
  if (data == reply.end() || !data->is_object()) {
    VLOG_ERROR(kTag, "GetMqttCerts: invalid data field: {}",
               data == reply.end() ? "none" : data->type_name());
    return std::nullopt;
  }
  return reply;
}

}  // namespace varnel::service

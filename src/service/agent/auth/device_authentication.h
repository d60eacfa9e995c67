#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "service/agent/auth/broker_access.h"
#include "service/agent/auth/country_code.h"
#include "service/agent/auth/credential_store.h"
#include "service/agent/auth/link_credentials.h"
#include "service/agent/auth/regions.h"
#include "service/agent/auth/token_reply.h"
#include "service/cloud/http/http_client.h"
#include "utils/mutex.h"

namespace varnel::service {

/// What a device proves its identity with, and to whom.
struct AuthenticationSetup {
  std::string serial_number;
  utils::SharedSecret private_key{};  ///< base64 of a DER private key
  std::string firmware_version{};     ///< empty: not known
  CloudPlaces places{};
  std::string country_code_path{};  ///< of the API; empty: it is never asked for
  std::filesystem::path certificates = "/home/ruxo/printer_data/certs";
  CredentialKey credential_key{};
  TransferStop stop{};  ///< ends whatever talks to the cloud
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// Proves the device's identity to the cloud and holds what the cloud link needs: tokens, client
/// certificate, region, country code. No operation throws but Sign(). Thread-safe, but for what is
/// said to be the agent's.
class DeviceAuthentication : public LinkCredentials {
 public:
  explicit DeviceAuthentication(AuthenticationSetup setup);
  DeviceAuthentication(const DeviceAuthentication&) = delete;
  DeviceAuthentication& operator=(const DeviceAuthentication&) = delete;

  /// Where a request goes, and with what right; the token is that server's own.
  struct Access {
    std::string base_url;
    utils::SharedSecret token{};
  };

  void SetRegion(const std::string& region) override;
  [[nodiscard]] std::string Region() const;

  [[nodiscard]] bool GetAccessToken(int64_t lifetime_h) override;
  [[nodiscard]] bool IsRegionLocked() const override { return region_locked_; }
  [[nodiscard]] bool RefreshToken(const utils::SharedSecret& refused) override;
  /// Nothing for a region that is not in the table. The token is null while there is none.
  [[nodiscard]] std::optional<Access> AccessTo(const std::string& region) const;
  /// A server did not take this one.
  void OnRefused(const utils::SharedSecret& token);
  [[nodiscard]] bool IsTokenRefused() const override;
  [[nodiscard]] bool HasToken() const override;
  void ForgetTokens() override;

  [[nodiscard]] bool GetAuthInfo() override;
  void DistrustCache() override { cache_distrusted_ = true; }
  [[nodiscard]] std::optional<nlohmann::json> AuthInfo() const override;
  void ClearAuthInfo() override;
  void RemoveClientCertificates() override;
  [[nodiscard]] bool CheckCertExpired() const { return store_.CheckCertExpired(); }

  void StartFetchCountryCode() override {
    if (!setup_.country_code_path.empty()) country_code_.StartFetchCountryCode();
  }
  /// The signature over the serial number, the operation and the nonce. Throws std::runtime_error.
  [[nodiscard]] std::string SignFor(const std::string& operate, const std::string& nonce) const;

  /// What must not leave the board: the device's key, and the tokens of this moment.
  void ForEachSecret(const std::function<void(std::string_view secret)>& visit) const;

  const std::string& SerialNumber() const { return setup_.serial_number; }
  const CloudPlaces& Places() const { return setup_.places; }
  /// The headers that say which device asks, for a base URL. @param firmware "" is what is known
  [[nodiscard]] HttpHeaders DeviceHeaders(const std::string& base_url,
                                          const std::string& firmware = {}) const;
  const AuthenticationSetup& Setup() const { return setup_; }

 private:
  /// What a request is for; what it brings is no more wanted once another time has begun.
  struct Target {
    std::string region;
    std::string base_url;
    uint64_t time = 0;
    bool operator==(const Target&) const = default;
  };
  struct Fetched {
    Target target;
    BrokerAccess access;
  };

  [[nodiscard]] std::optional<Target> TargetNow() const;
  [[nodiscard]] std::string DeviceGrant(int64_t lifetime_h) const;
  [[nodiscard]] std::optional<std::string> PostForm(const Target& target, const std::string& form,
                                                    const char* failure);
  TokenResult RequestOauth2Token(int64_t lifetime_h, TokenPair& tokens, const Target& target);
  TokenResult FetchAccessToken(const TokenPair& old, TokenPair& tokens, const Target& target);
  bool Adopt(TokenPair tokens, const Target& target);
  /// Those of this server; empty: there are none.
  [[nodiscard]] TokenPair TokensOf(const std::string& base_url) const;
  bool Refresh() REQUIRES(refresh_mutex_);
  [[nodiscard]] std::optional<nlohmann::json> GetMqttCerts(bool refresh, const Target& target);
  [[nodiscard]] std::optional<nlohmann::json> FetchAuthInfo(const Target& target, bool expired);
  [[nodiscard]] std::optional<Fetched> FetchBrokerAccess(const Target& target, bool expired);
  void Keep(nlohmann::json info, const Target& target);

  const AuthenticationSetup setup_;
  const CredentialStore store_;
  HttpClient tokens_http_;
  HttpClient country_http_;
  HttpClient certs_http_;

  std::atomic<bool> region_locked_ = false;
  bool cache_distrusted_ = false;        ///< the agent's
  std::optional<Fetched> unsaved_;       ///< waits for room on the disk; the agent's
  std::atomic<uint64_t> refreshes_ = 0;  ///< how many have ended
  utils::Mutex refresh_mutex_;           ///< one at a time; held while it talks, before mutex_
  bool refreshed_ GUARDED_BY(refresh_mutex_) = false;  ///< how the last one ended
  mutable utils::Mutex mutex_;
  std::string region_ GUARDED_BY(mutex_);
  uint64_t time_ GUARDED_BY(mutex_) = 0;  ///< another one begins when the tokens are forgotten
  TokenPair tokens_ GUARDED_BY(mutex_);
  std::string issuer_ GUARDED_BY(mutex_);    ///< the base URL that they came from
  bool refused_ GUARDED_BY(mutex_) = false;  ///< the access token
  std::optional<nlohmann::json> auth_info_ GUARDED_BY(mutex_);
  CountryCode country_code_;  // last: its thread uses the rest
};

}  // namespace varnel::service

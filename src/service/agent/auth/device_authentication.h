#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "service/agent/auth/broker_access.h"
#include "service/agent/auth/country_code.h"
#include "service/agent/auth/credential_store.h"
#include "service/agent/auth/regions.h"
#include "service/agent/auth/token_reply.h"
#include "service/cloud/http/http_client.h"

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
class DeviceAuthentication {
 public:
  explicit DeviceAuthentication(AuthenticationSetup setup);
  DeviceAuthentication(const DeviceAuthentication&) = delete;
  DeviceAuthentication& operator=(const DeviceAuthentication&) = delete;

  /// An unknown region becomes the default one. Another one than before forgets the tokens.
  void SetRegion(const std::string& region);
  [[nodiscard]] std::string Region() const;

  /// Asks for new tokens with the device's signature.
  /// @param lifetime_h how long they shall be good
  [[nodiscard]] bool GetAccessToken(int64_t lifetime_h);
  /// The last GetAccessToken() was refused because the device belongs to another region.
  [[nodiscard]] bool IsRegionLocked() const { return region_locked_; }
  /// Asks for new tokens with the old ones, one at a time.
  /// @param refused what the server would not take any more: true at once if it has been replaced
  ///   meanwhile; null: whatever there is
  [[nodiscard]] bool RefreshToken(const utils::SharedSecret& refused = nullptr);
  /// Null or empty: there is none.
  [[nodiscard]] utils::SharedSecret AccessToken() const;
  void ForgetTokens();

  /// Fills the authentication info, from the disk if possible. The agent's.
  [[nodiscard]] bool GetAuthInfo();
  /// "endpoint", "port", "clientid", paths in "client_cert", "client_key", "root_ca", and "region".
  /// Nothing before GetAuthInfo() succeeded.
  [[nodiscard]] std::optional<nlohmann::json> AuthInfo() const;
  void ClearAuthInfo();
  /// Deletes what the cloud link is made with. The agent's.
  void RemoveClientCertificates();
  [[nodiscard]] bool CheckCertExpired() const { return store_.CheckCertExpired(); }

  void StartFetchCountryCode() { country_code_.StartFetchCountryCode(); }
  /// The signature over the serial number, the operation and the nonce. Throws std::runtime_error.
  [[nodiscard]] std::string SignFor(const std::string& operate, const std::string& nonce) const;

  const std::string& SerialNumber() const { return setup_.serial_number; }
  const CloudPlaces& Places() const { return setup_.places; }
  /// The headers that say which device asks, for a base URL. @param firmware "" is what is known
  [[nodiscard]] HttpHeaders DeviceHeaders(const std::string& base_url,
                                          const std::string& firmware = {}) const;
  /// Talks to the API with the access token that there is.
  HttpClient& Api() { return api_; }

 private:
  /// The URL of a token request, and the region that it is for. Nothing is logged.
  struct Target {
    std::string region;
    std::string base_url;
  };

  [[nodiscard]] std::optional<Target> TargetNow() const;
  [[nodiscard]] std::string DeviceGrant(int64_t lifetime_h) const;
  [[nodiscard]] std::optional<std::string> PostForm(const Target& target, const std::string& form,
                                                    const char* failure);
  TokenResult RequestOauth2Token(int64_t lifetime_h, TokenPair& tokens, Target& target);
  TokenResult FetchAccessToken(const TokenPair& old, TokenPair& tokens, Target& target);
  bool Adopt(TokenPair tokens, const Target& target);
  [[nodiscard]] TokenPair Tokens() const;
  [[nodiscard]] std::optional<nlohmann::json> GetMqttCerts(bool refresh, const Target& target);
  [[nodiscard]] std::optional<nlohmann::json> FetchAuthInfo(const Target& target);
  void Keep(nlohmann::json info, const Target& target);

  const AuthenticationSetup setup_;
  const CredentialStore store_;
  HttpClient tokens_http_;
  HttpClient country_http_;
  HttpClient api_;
  CountryCode country_code_;

  std::atomic<bool> region_locked_ = false;
  std::mutex refresh_mutex_;  ///< one refresh at a time; held while it talks
  mutable std::mutex mutex_;
  std::string region_;  // mutex_, like the next
  TokenPair tokens_;
  std::optional<nlohmann::json> auth_info_;
};

}  // namespace varnel::service

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "utils/secret.h"

namespace varnel::service {

/// What the cloud link is made with, as the agent asks for it. No operation throws.
class LinkCredentials {
 public:
  virtual ~LinkCredentials() = default;

  /// An unknown region becomes the default one. Another one than before forgets the tokens.
  virtual void SetRegion(const std::string& region) = 0;
  /// Asks for new tokens with the device's signature.
  /// @param lifetime_h how long they shall be good
  [[nodiscard]] virtual bool GetAccessToken(int64_t lifetime_h) = 0;
  /// The last GetAccessToken() was refused because the device belongs to another region.
  [[nodiscard]] virtual bool IsRegionLocked() const = 0;
  /// Asks for new tokens with the old ones, one at a time; who waited for another one's attempt
  /// takes its outcome.
  /// @param refused what the server would not take any more: true at once if it has been replaced
  ///   meanwhile; null: whatever there is
  [[nodiscard]] virtual bool RefreshToken(const utils::SharedSecret& refused) = 0;
  /// A server would not take the access token that there is.
  [[nodiscard]] virtual bool IsTokenRefused() const = 0;
  /// For the server that is talked to at this moment, which a file on the disk may decide.
  [[nodiscard]] virtual bool HasToken() const = 0;
  virtual void ForgetTokens() = 0;

  /// Fills the authentication info, from the disk if possible. The agent's.
  [[nodiscard]] virtual bool GetAuthInfo() = 0;
  /// The next GetAuthInfo() asks the cloud, whatever is on the disk: the broker may have moved.
  virtual void DistrustCache() = 0;
  /// "endpoint", "port", "clientid", paths in "client_cert", "client_key", "root_ca", and "region".
  /// Nothing before GetAuthInfo() succeeded.
  [[nodiscard]] virtual std::optional<nlohmann::json> AuthInfo() const = 0;
  virtual void ClearAuthInfo() = 0;
  /// Deletes what the cloud link is made with. The agent's.
  virtual void RemoveClientCertificates() = 0;

  /// Asks on a thread of its own, unless it is known or being asked for.
  virtual void StartFetchCountryCode() = 0;
};

}  // namespace varnel::service

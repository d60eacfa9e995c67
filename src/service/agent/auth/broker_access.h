#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "utils/secret.h"

namespace varnel::service {

/// What the cloud link is made with.
struct BrokerAccess {
  std::string endpoint;
  uint16_t port = 0;
  std::string client_id;
  std::string certificate;    ///< PEM
  std::string root_ca;        ///< PEM
  utils::SecretString key{};  ///< PEM
};

/// How "secretId" and "secretKey" of a reply are to be opened.
struct CredentialKey {
  utils::SharedSecret aes{};  ///< base64 of an IV and AES-256-CBC; null: none
  bool allows_clear = false;  ///< PEM as it is
};

/// "data" of the reply to getMqttCert: "secretId" is the device's certificate and then the root CA.
/// The key has to match the certificate. What is wrong is logged.
[[nodiscard]] std::optional<BrokerAccess> ReadBrokerAccess(const nlohmann::json& reply,
                                                           const CredentialKey& key);

}  // namespace varnel::service

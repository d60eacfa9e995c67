#pragma once

#include <string>

namespace varnel::comms {

/// Everything one connection to a broker needs. The link is secure when any certificate path is
/// given.
struct MqttConnectSettings {
  std::string host{};
  std::string port{};
  std::string client_id{};
  int keep_alive_s = 30;
  std::string client_certificate{};  ///< path of a PEM file, like the next two
  std::string client_key{};
  std::string root_ca{};
  std::string user_name{};  ///< not sent when empty, like the password
  std::string password{};
  int connect_timeout_s = 10;
  /// A broker that refuses one subscription has refused the link.
  bool needs_every_subscription = false;

  bool Secure() const {
    return !client_certificate.empty() || !client_key.empty() || !root_ca.empty();
  }
};

}  // namespace varnel::comms

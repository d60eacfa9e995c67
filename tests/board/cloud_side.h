#pragma once

#include <optional>
#include <string>

#include "board/run_inside.h"
#include "comms/client_mqtt_base.h"

namespace varnel::board {

/// The cloud of TheBoard(): a broker that demands client certificates, with listeners that show a
/// right certificate (8883), an expired one (8884) and one of another host (8885).
class CloudSide {
 public:
  /// Makes the certificates and starts the broker. Throws std::runtime_error.
  CloudSide();

  /// Returns when the broker takes connections.
  void Start() const;
  void Kill() const;

  /// Host path of "NAME.crt" or "NAME.key", see board/cloud/make-certificates.
  static std::string File(const std::string& name);
  /// The private key of which a part shows in this text.
  static std::optional<std::string> SecretIn(const std::string& text);
  /// All right for a connection.
  static comms::MqttConnectSettings Settings(const std::string& client_id);
};

}  // namespace varnel::board

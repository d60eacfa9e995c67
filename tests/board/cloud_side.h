#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

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

  /// The options by which mosquitto's own clients, inside, reach the broker.
  static std::vector<std::string> ClientOptions();
  /// Host path of "NAME.crt" or "NAME.key", see board/cloud/make-certificates.
  static std::string File(const std::string& name);
  /// The private key of which a part shows in this text.
  static std::optional<std::string> SecretIn(const std::string& text);
  /// All right for a connection.
  static comms::MqttConnectSettings Settings(const std::string& client_id);
};

/// A message as a broker passed it on.
struct SpiedMessage {
  std::string topic;
  int qos = 0;
  bool retain = false;
  std::string payload;
  bool operator==(const SpiedMessage&) const = default;
  friend void PrintTo(const SpiedMessage& message, std::ostream* out) {
    *out << message.topic << " q" << message.qos << (message.retain ? " retained " : " ")
         << message.payload.substr(0, 40);
  }
};

/// Writes down every message of one broker of TheBoard(), by a client that is not ours. For one
/// thread.
class BrokerSpy {
 public:
  /// `options` lead mosquitto's clients to the broker. Returns when the spy is at work.
  BrokerSpy(std::string name, std::vector<std::string> options);

  /// Waits until what is published is written down; after a restart of the broker, too.
  void AwaitReady();
  /// What has passed so far on topics that begin like this.
  std::vector<SpiedMessage> Seen(const std::string& topic_prefix);
  bool WaitFor(const std::string& topic, const std::string& payload);

 private:
  void ReadOn();

  const std::string name_;
  const std::vector<std::string> options_;
  const std::vector<std::string> command_;
  std::streamoff read_ = 0;
  std::vector<SpiedMessage> messages_;
  int marks_ = 0;
};

}  // namespace varnel::board

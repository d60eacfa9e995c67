#pragma once

#include <cstdint>
#include <string>

namespace varnel::comms {

/// One received or sent message; the payload is any sequence of bytes.
struct MqttMessage {
  std::string topic;
  std::string payload;
  /// Published before we subscribed and kept by the broker; it comes again at every connection.
  bool retained = false;
  /// The link that it came over; see ClientMqttBase::IsLive().
  uint32_t link = 0;
};

/// The topics of a JSON-RPC endpoint. An empty response topic: a server derives it from the
/// request's topic, a client sends notifications only.
struct MqttChannel {
  std::string request_topic;
  std::string response_topic;
};

/// How messages reach a broker and return (delivery guarantees of MQTT).
enum class Qos : int { kAtMostOnce = 0, kAtLeastOnce = 1 };

}  // namespace varnel::comms

#pragma once

#include <string>
#include <string_view>

#include "comms/client_mqtt_base.h"
#include "comms/json_rpc_envelope.h"
#include "comms/json_rpc_message.h"

namespace varnel::comms {

/// "system/request" to "system/response"; empty for a topic without "request", which has no answer
/// topic.
std::string ResponseTopicOf(const std::string& request_topic);

/// What both JSON-RPC ends share: a name for the log and publishing envelopes through an MQTT
/// client.
class JsonRpcBase {
 public:
  const std::string& Name() const { return name_; }

 protected:
  /// `tag` is the module tag of the derived class's log lines.
  JsonRpcBase(std::string name, const char* tag);
  ~JsonRpcBase() = default;

  /// Publishes an envelope on `topic` at QoS 0. kUnsupported, logged, without a
  /// client or a topic to publish on.
  CommsStatus Publish(ClientMqttBase* client, const std::string& topic,
                      std::string_view envelope) const;

  /// Why a received payload cannot be served.
  void LogFailure(const ParseFailure& failure, std::string_view payload) const;
  void LogInvalidMessage(std::string_view payload) const;

 private:
  const std::string name_;
  const char* const tag_;
};

}  // namespace varnel::comms

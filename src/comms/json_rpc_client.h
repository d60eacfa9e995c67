#pragma once

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "comms/json_rpc_base.h"
#include "comms/json_rpc_envelope.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// The calling side of JSON-RPC over MQTT. Thread-safe.
class JsonRpcClient : public JsonRpcBase {
 public:
  /// What a call came to. `response` is the whole envelope, with "result" or "error", when `status`
  /// is kOk.
  struct CallResult {
    CommsStatus status;
    Json response;
  };

  explicit JsonRpcClient(std::string name);
  /// Stops listening. No call may be waiting any more.
  ~JsonRpcClient();
  JsonRpcClient(const JsonRpcClient&) = delete;
  JsonRpcClient& operator=(const JsonRpcClient&) = delete;

  /// Publishes on the channel's request topic and listens on its response topic; without a response
  /// topic the client subscribes to nothing and can only notify. Once per client.
  CommsStatus Bind(const std::shared_ptr<ClientMqttBase>& client, const MqttChannel& channel);

  /// Publishes a request and blocks until its response or the time-out. `id` must be unique among
  /// the calls that wait, and short. Never call it from a listener of the same MQTT client: the
  /// response could not be delivered.
  CallResult Call(const std::string& method, Json params, const Json& id,
                  std::chrono::milliseconds timeout);

  /// Publishes a notification.
  CommsStatus Notify(const std::string& method, Json params);

 private:
  struct PendingRequest {
    Json id;
    std::chrono::steady_clock::time_point deadline;
    std::promise<Json> result;
  };

  struct Binding {
    std::shared_ptr<ClientMqttBase> client;
    MqttChannel channel;
  };

  Binding CurrentBinding() const;
  std::shared_ptr<PendingRequest> AddPending(const Json& id, std::chrono::milliseconds timeout);
  void RemovePending(const Json& id);
  std::shared_ptr<PendingRequest> TakePending(const Json& id);
  std::shared_ptr<PendingRequest> PendingOf(std::string_view id);
  void OnPayload(const std::string& payload);
  void OnResponse(const JsonRpcEnvelope& response);

  mutable utils::Mutex binding_mutex_;
  Binding binding_ GUARDED_BY(binding_mutex_);

  utils::Mutex pending_mutex_;
  std::map<std::string, std::shared_ptr<PendingRequest>> pending_
      GUARDED_BY(pending_mutex_);  // by serialised id
};

}  // namespace varnel::comms

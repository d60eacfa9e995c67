#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "comms/json_rpc_base.h"
#include "comms/json_rpc_envelope.h"
#include "comms/worker_lane.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// The answer to one request, ready to be published. Views live for the length of the call that
/// delivers it.
struct RpcAnswer {
  std::string_view id;  ///< JSON text
  bool is_error;
  std::string payload;
};

/// Takes a request's "params" (null when absent) and returns the result, or {"code": number,
/// "message": text} for a failure. Runs on a worker thread; several calls may run at once. Whatever
/// it throws is answered -32603.
using RpcHandler = std::function<Json(const Json& params)>;

/// Gets the answer of a method when it is on its way, on the worker of the request.
using AfterAnswer = std::function<void(const Json& answer)>;

/// Runs the registered methods for requests that arrive on MQTT topics or through InvokeMethod().
/// Thread-safe.
class JsonRpcServer : public JsonRpcBase {
 public:
  using Reply = std::function<void(RpcAnswer answer)>;
  /// Asked on the worker before the method runs; false: it does not, and there is no answer.
  using Admit = std::function<bool()>;

  explicit JsonRpcServer(std::string name);
  /// Stops listening; waits for the handlers that run.
  ~JsonRpcServer();
  JsonRpcServer(const JsonRpcServer&) = delete;
  JsonRpcServer& operator=(const JsonRpcServer&) = delete;

  /// kInvalidArgument (-2) for an empty name or handler, kFailure for a name that is taken.
  CommsStatus RegisterMethod(const std::string& method, MethodKind kind, RpcHandler handler,
                             AfterAnswer after = nullptr);

  /// Serves the channel's request topic on `client`, which must be the same for every channel.
  /// Without a response topic in the channel each answer goes to the request's topic with "request"
  /// replaced by "response".
  CommsStatus BindMqtt(const std::shared_ptr<ClientMqttBase>& client, const MqttChannel& channel);

  /// A request that the broker has kept from earlier is not to be served: it would run again at
  /// every connection. True and logged for such a one.
  static bool IsStale(const MqttMessage& request);

  /// Serves one message that came on `topic`.
  void OnMessage(JsonRpcEnvelope request, const std::string& topic);

  /// Runs a method for a caller that is not on MQTT, if `admit` (null: always) lets it. `reply`
  /// gets the answer on a worker thread (or on the caller's when the method is unknown or the
  /// server is busy), and nothing for a request without "id".
  void InvokeMethod(const std::string& method, JsonRpcEnvelope request, Reply reply,
                    Admit admit = nullptr);

 private:
  struct Method {
    MethodKind kind;
    RpcHandler handler;
    AfterAnswer after;
  };
  /// A call on its way to a handler and back.
  struct Call {
    std::string method;
    RpcHandler handler;
    AfterAnswer after;
    JsonRpcEnvelope request;
    Reply reply;
    Admit admit;
  };

  void OnPayload(const std::string& payload, const std::string& topic);
  static void Answer(const JsonRpcEnvelope& request, const Reply& reply, const Json& value);
  static void Run(const Call& call);
  static Json CallHandler(const Call& call);
  std::optional<Method> FindMethod(const std::string& method) const;
  std::string ResponseTopic(const std::string& request_topic) const;
  void SendResponse(std::string_view response, const std::string& request_topic) const;
  WorkerLane& LaneOf(const std::string& method);

  const std::function<std::string(const std::string&)> topic_mapper_;

  mutable utils::Mutex methods_mutex_;
  std::map<std::string, Method, std::less<>> methods_ GUARDED_BY(methods_mutex_);

  mutable utils::Mutex bindings_mutex_;
  std::shared_ptr<ClientMqttBase> client_ GUARDED_BY(bindings_mutex_);
  std::map<std::string, std::string> channels_
      GUARDED_BY(bindings_mutex_);  // request to response topic

  LargeRequests large_requests_;  // last, with the lanes: the threads use the rest
  WorkerLane camera_lane_;
  WorkerLane general_lane_;
};

}  // namespace varnel::comms

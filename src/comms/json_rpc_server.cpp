#include "comms/json_rpc_server.h"

#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "JRPCS";

}  // namespace

JsonRpcServer::JsonRpcServer(std::string name)
    : JsonRpcBase(std::move(name), kTag),
      topic_mapper_(ResponseTopicOf),
      camera_lane_("cam", large_requests_),
      general_lane_("rpc", large_requests_) {
  VLOG_INFO(kTag, "Create a JSON-RPC server: {}", Name());
}

JsonRpcServer::~JsonRpcServer() {
  if (!client_) return;
  for (const auto& [request_topic, response_topic] : channels_)
    client_->RemoveListener(request_topic);
}

CommsStatus JsonRpcServer::RegisterMethod(const std::string& method, MethodKind kind,
                                          RpcHandler handler, AfterAnswer after) {
  if (method.empty() || !handler) return CommsStatus::kInvalidArgument;
  {
    const utils::MutexLock lock(methods_mutex_);
    if (methods_.contains(method)) {
      VLOG_ERROR(kTag, "Callback of method {} has been registered", method);
      return CommsStatus::kFailure;
    }
    LaneOf(method).Open(kind);
    methods_.emplace(method, Method{kind, std::move(handler), std::move(after)});
  }
  VLOG_DEBUG(kTag, "Register request callback for method '{}'", method);
  return CommsStatus::kOk;
}

bool JsonRpcServer::IsStale(const MqttMessage& request) {
  if (request.retained)
    VLOG_WARN(kTag, "Ignore a retained request on topic {}", utils::LogText(request.topic));
  return request.retained;
}

CommsStatus JsonRpcServer::BindMqtt(const std::shared_ptr<ClientMqttBase>& client,
                                    const MqttChannel& channel) {
  if (!client) {
    VLOG_ERROR(kTag, "MQTT link is invalid");
    return CommsStatus::kInvalidArgument;
  }
  {
    const utils::MutexLock lock(bindings_mutex_);
    if (client_ && client_ != client) {
      VLOG_ERROR(kTag, "JSON-RPC {} already bound to a different MQTT link", Name());
      return CommsStatus::kFailure;
    }
    client_ = client;
    channels_[channel.request_topic] = channel.response_topic;
  }
  const CommsStatus status = client->AddListener(
      channel.request_topic, [this](const std::shared_ptr<MqttMessage>& message) {
        if (IsStale(*message)) return;
        OnPayload(message->payload, message->topic);
      });
  if (status != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "JSON-RPC {} bind to MQTT failed for topic {}", Name(), channel.request_topic);
  }
  return status;
}

void JsonRpcServer::OnPayload(const std::string& payload, const std::string& topic) {
  try {
    auto read = JsonRpcEnvelope::Read(payload);
    if (auto* request = std::get_if<JsonRpcEnvelope>(&read)) {
      OnMessage(std::move(*request), topic);
    } else {
      LogFailure(std::get<ParseFailure>(read), payload);
    }
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handling message exception {}", utils::LogText(error.what()));
  }
}

void JsonRpcServer::OnMessage(JsonRpcEnvelope request, const std::string& topic) {
  const auto method = request.Method();
  if (!method) {
    LogInvalidMessage(request.Payload());
    return;
  }
  if (request.HasId()) {
    VLOG_INFO(kTag, "Receive normal request: id is {}, method is {}", utils::LogText(request.Id()),
              utils::LogText(*method));
  } else {
    VLOG_INFO(kTag, "Receive notification request: method is {}", utils::LogText(*method));
  }
  InvokeMethod(
      *method, std::move(request),
      [this, topic](const RpcAnswer& answer) { SendResponse(answer.payload, topic); }, nullptr);
}

void JsonRpcServer::InvokeMethod(const std::string& method, JsonRpcEnvelope request, Reply reply,
                                 Admit admit) {
  std::optional<Method> found = FindMethod(method);
  if (!found) {
    VLOG_ERROR(kTag, "Method not found: {}", utils::LogText(method));
    Answer(request, reply, MethodNotFound(method));
    return;
  }
  const RequestSize size{request.Payload().size(), request.BuiltBytes()};
  auto call =
      std::make_shared<const Call>(Call{method, std::move(found->handler), std::move(found->after),
                                        std::move(request), std::move(reply), std::move(admit)});
  if (LaneOf(method).TryPost(
          found->kind, [call] { Run(*call); }, size))
    return;
  VLOG_WARN(kTag, "Server busy, refusing method {}", method);
  Answer(call->request, call->reply, MakeError(RpcError::kOperationFailed, "Server busy"));
}

void JsonRpcServer::Answer(const JsonRpcEnvelope& request, const Reply& reply, const Json& value) {
  if (!request.HasId() || !reply) return;
  reply({request.Id(), IsErrorObject(value), MakeResponse(request.Id(), value)});
}

void JsonRpcServer::Run(const Call& call) {
  try {
    if (call.admit && !call.admit()) return;
    const Json answer = CallHandler(call);
    Answer(call.request, call.reply, answer);
    if (call.after) call.after(answer);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handling message exception {}", utils::LogText(error.what()));
  }
}

Json JsonRpcServer::CallHandler(const Call& call) {
  try {
    return call.handler(call.request.Params());
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handler exception for method {}: {}", call.method,
               utils::LogText(error.what()));
  } catch (...) {
    VLOG_ERROR(kTag, "Handler exception for method {}: {}", call.method, "unknown");
  }
  return MakeError(RpcError::kInternalError, "Internal error");
}

std::optional<JsonRpcServer::Method> JsonRpcServer::FindMethod(const std::string& method) const {
  const utils::MutexLock lock(methods_mutex_);
  const auto found = methods_.find(method);
  if (found == methods_.end()) return std::nullopt;
  return found->second;
}

std::string JsonRpcServer::ResponseTopic(const std::string& request_topic) const {
  const utils::MutexLock lock(bindings_mutex_);
  const auto channel = channels_.find(request_topic);
  const bool fixed = channel != channels_.end() && !channel->second.empty();
  return fixed ? channel->second : topic_mapper_(request_topic);
}

void JsonRpcServer::SendResponse(std::string_view response,
                                 const std::string& request_topic) const {
  const std::string topic = ResponseTopic(request_topic);
  std::shared_ptr<ClientMqttBase> client;
  {
    const utils::MutexLock lock(bindings_mutex_);
    client = client_;
  }
  if (Publish(client.get(), topic, response) != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "Failed to send response to {}", utils::LogText(topic));
  }
}

WorkerLane& JsonRpcServer::LaneOf(const std::string& method) {
  return method.starts_with("camera.") ? camera_lane_ : general_lane_;
}

}  // namespace varnel::comms

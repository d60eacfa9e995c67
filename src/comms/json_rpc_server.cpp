#include "comms/json_rpc_server.h"

#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "JRPCS";

const std::string* MethodOf(const Json& message) {
  if (!message.is_object()) return nullptr;
  const auto method = message.find("method");
  return method != message.end() ? method->get_ptr<const std::string*>() : nullptr;
}

Json TakeMember(Json& request, const char* name) {
  const auto member = request.find(name);
  return member == request.end() ? Json() : std::move(*member);
}

}  // namespace

JsonRpcServer::JsonRpcServer(std::string name)
    : JsonRpcBase(std::move(name), kTag),
      topic_mapper_(ResponseTopicOf),
      camera_lane_("rpc-camera"),
      general_lane_("rpc") {
  VLOG_INFO(kTag, "Create a JSON-RPC server: {}", Name());
}

JsonRpcServer::~JsonRpcServer() {
  if (!client_) return;
  for (const auto& [request_topic, response_topic] : channels_)
    client_->RemoveListener(request_topic);
}

CommsStatus JsonRpcServer::RegisterMethod(const std::string& method, RpcHandler handler) {
  if (method.empty() || !handler) return CommsStatus::kInvalidArgument;
  {
    std::lock_guard lock(methods_mutex_);
    if (!methods_.emplace(method, std::move(handler)).second) {
      VLOG_ERROR(kTag, "Callback of method {} has been registered", method);
      return CommsStatus::kFailure;
    }
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
    std::lock_guard lock(bindings_mutex_);
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
    const std::unique_ptr<Json> message = ParseLogged(payload);
    if (!message) return;
    if (!MethodOf(*message)) {
      LogInvalidMessage(payload);
      return;
    }
    Serve(std::move(*message), topic, payload.size());
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handling message exception {}", utils::LogText(error.what()));
  }
}

void JsonRpcServer::OnMessage(Json message, const std::string& topic) {
  const size_t bytes = Serialize(message).size();
  Serve(std::move(message), topic, bytes);
}

void JsonRpcServer::Serve(Json message, const std::string& topic, size_t bytes) {
  const std::string* name = MethodOf(message);
  if (!name) {
    LogInvalidMessage(Serialize(message));
    return;
  }
  const std::string method = *name;
  const auto id = message.find("id");
  if (id == message.end()) {
    VLOG_INFO(kTag, "Receive notification request: method is {}", utils::LogText(method));
  } else {
    VLOG_INFO(kTag, "Receive normal request: id is {}, method is {}",
              utils::LogText(Serialize(*id)), utils::LogText(method));
  }
  Dispatch(
      method, std::move(message),
      [this, topic](const Json& response) { SendResponse(response, topic); }, bytes, nullptr);
}

void JsonRpcServer::InvokeMethod(const std::string& method, Json request, const Reply& reply,
                                 size_t bytes, Admit admit) {
  Dispatch(method, std::move(request), reply, bytes, std::move(admit));
}

void JsonRpcServer::Dispatch(const std::string& method, Json request, const Reply& reply,
                             size_t bytes, Admit admit) {
  const bool wants_answer = request.is_object() && request.contains("id");
  const auto answer = [&reply, wants_answer](Json id, Json value) {
    if (wants_answer && reply) reply(MakeResponse(std::move(id), std::move(value)));
  };
  RpcHandler handler = FindHandler(method);
  if (!handler) {
    VLOG_ERROR(kTag, "Method not found: {}", utils::LogText(method));
    answer(wants_answer ? TakeMember(request, "id") : Json(), MethodNotFound(method));
    return;
  }
  const Json id = wants_answer ? request["id"] : Json();
  auto work = std::make_shared<Json>(std::move(request));
  auto run = [this, method, handler, work, reply, wants_answer, id, admit = std::move(admit)] {
    try {
      if (admit && !admit()) return;
      Json value = CallHandler(method, handler, *work);
      if (wants_answer && reply) reply(MakeResponse(id, std::move(value)));
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "Handling message exception {}", utils::LogText(error.what()));
    }
  };
  if (LaneOf(method).TryPost(std::move(run), bytes)) return;
  VLOG_WARN(kTag, "Server busy, refusing method {}", method);
  answer(id, MakeError(kOperationFailed, "Server busy"));
}

RpcHandler JsonRpcServer::FindHandler(const std::string& method) const {
  std::lock_guard lock(methods_mutex_);
  const auto found = methods_.find(method);
  return found == methods_.end() ? nullptr : found->second;
}

Json JsonRpcServer::CallHandler(const std::string& method, const RpcHandler& handler,
                                const Json& request) const {
  static const Json kNoParams;
  try {
    const auto params = request.is_object() ? request.find("params") : request.end();
    return handler(request.is_object() && params != request.end() ? *params : kNoParams);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handler exception for method {}: {}", method, utils::LogText(error.what()));
  } catch (...) {
    VLOG_ERROR(kTag, "Handler exception for method {}: {}", method, "unknown");
  }
  return MakeError(kInternalError, "Internal error");
}

std::string JsonRpcServer::ResponseTopic(const std::string& request_topic) const {
  std::lock_guard lock(bindings_mutex_);
  const auto channel = channels_.find(request_topic);
  const bool fixed = channel != channels_.end() && !channel->second.empty();
  return fixed ? channel->second : topic_mapper_(request_topic);
}

void JsonRpcServer::SendResponse(const Json& response, const std::string& request_topic) const {
  const std::string topic = ResponseTopic(request_topic);
  std::shared_ptr<ClientMqttBase> client;
  {
    std::lock_guard lock(bindings_mutex_);
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

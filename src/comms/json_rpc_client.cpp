#include "comms/json_rpc_client.h"

#include <utility>

#include "comms/log_payload.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

/// Keeps a deadline within what the clock can hold.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);

constexpr const char* kTag = "JRPCC";
constexpr size_t kLoggedBytes = 160;

constexpr size_t kLongestId = 256;

}  // namespace

JsonRpcClient::JsonRpcClient(std::string name) : JsonRpcBase(std::move(name), kTag) {
  VLOG_INFO(kTag, "Create a JSON-RPC client: {}", Name());
}

JsonRpcClient::~JsonRpcClient() {
  const Binding binding = CurrentBinding();
  if (binding.client && !binding.channel.response_topic.empty()) {
    binding.client->RemoveListener(binding.channel.response_topic);
  }
}

CommsStatus JsonRpcClient::Bind(const std::shared_ptr<ClientMqttBase>& client,
                                const MqttChannel& channel) {
  if (!client) {
    VLOG_ERROR(kTag, "MQTT link is invalid");
    return CommsStatus::kInvalidArgument;
  }
  {
    const utils::MutexLock lock(binding_mutex_);
    if (binding_.client) {
      VLOG_ERROR(kTag, "JSON-RPC {} has already been bound", Name());
      return CommsStatus::kFailure;
    }
    binding_ = {client, channel};
  }
  if (channel.response_topic.empty()) return CommsStatus::kOk;
  const CommsStatus status = client->AddListener(
      channel.response_topic,
      [this](const std::shared_ptr<MqttMessage>& message) { OnPayload(message->payload); });
  if (status != CommsStatus::kOk) VLOG_ERROR(kTag, "JSON-RPC {} bind to MQTT failed", Name());
  return status;
}

JsonRpcClient::Binding JsonRpcClient::CurrentBinding() const {
  const utils::MutexLock lock(binding_mutex_);
  return binding_;
}

JsonRpcClient::CallResult JsonRpcClient::Call(const std::string& method, Json params,
                                              const Json& id, std::chrono::milliseconds timeout) {
  const Binding binding = CurrentBinding();
  if (!binding.client) {
    VLOG_ERROR(kTag, "The JSON-RPC client is not bound");
    return {CommsStatus::kNotInitialized, {}};
  }
  if (binding.channel.response_topic.empty()) {
    VLOG_ERROR(kTag, "Unsupported operation");
    return {CommsStatus::kUnsupported, {}};
  }
  const std::shared_ptr<PendingRequest> pending = AddPending(id, timeout);
  if (!pending) return {CommsStatus::kInvalidArgument, {}};
  std::future<Json> response = pending->result.get_future();
  const Json request = MakeRequest(method, std::move(params), id);
  if (const CommsStatus sent =
          Publish(binding.client.get(), binding.channel.request_topic, Serialize(request));
      sent != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "Send request failed, id {}", Serialize(id));
    RemovePending(id);
    return {sent, {}};
  }
  if (response.wait_until(pending->deadline) != std::future_status::ready) {
    VLOG_ERROR(kTag, "Waiting for response timeout, id {}", Serialize(id));
    RemovePending(id);
    return {CommsStatus::kTimeout, {}};
  }
  return {CommsStatus::kOk, response.get()};
}

CommsStatus JsonRpcClient::Notify(const std::string& method, Json params) {
  const Binding binding = CurrentBinding();
  if (!binding.client) {
    VLOG_ERROR(kTag, "The JSON-RPC client is not bound");
    return CommsStatus::kNotInitialized;
  }
  const CommsStatus status = Publish(binding.client.get(), binding.channel.request_topic,
                                     Serialize(MakeNotification(method, std::move(params))));
  if (status != CommsStatus::kOk) VLOG_ERROR(kTag, "Notification of call failure");
  return status;
}

std::shared_ptr<JsonRpcClient::PendingRequest> JsonRpcClient::AddPending(
    const Json& id, std::chrono::milliseconds timeout) {
  auto pending = std::make_shared<PendingRequest>();
  pending->id = id;
  pending->deadline = std::chrono::steady_clock::now() + std::min(timeout, kLongestWait);
  const utils::MutexLock lock(pending_mutex_);
  const std::string text = Serialize(id);
  if (text.size() <= kLongestId && pending_.try_emplace(text, pending).second) return pending;
  VLOG_ERROR(kTag, "Send request failed, id {}", Serialize(id));
  return nullptr;
}

void JsonRpcClient::RemovePending(const Json& id) {
  const utils::MutexLock lock(pending_mutex_);
  pending_.erase(Serialize(id));
}

std::shared_ptr<JsonRpcClient::PendingRequest> JsonRpcClient::TakePending(const Json& id) {
  const utils::MutexLock lock(pending_mutex_);
  const auto node = pending_.extract(Serialize(id));
  return node ? node.mapped() : nullptr;
}

/// Only what could be an id of ours is built.
std::shared_ptr<JsonRpcClient::PendingRequest> JsonRpcClient::PendingOf(std::string_view id) {
  return id.size() <= kLongestId ? TakePending(Json::parse(id)) : nullptr;
}

void JsonRpcClient::OnPayload(const std::string& payload) {
  try {
    const auto read = JsonRpcEnvelope::Read(payload);
    if (const auto* envelope = std::get_if<JsonRpcEnvelope>(&read)) {
      OnResponse(*envelope);
    } else {
      LogFailure(std::get<ParseFailure>(read), payload);
    }
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handling message exception {}", utils::LogText(error.what()));
  }
}

void JsonRpcClient::OnResponse(const JsonRpcEnvelope& response) {
  if (!response.IsResponse()) {
    LogInvalidMessage(response.Payload());
    return;
  }
  const std::string shown = LogPayload(response.Payload(), kLoggedBytes);
  if (!response.HasId()) {
    VLOG_ERROR(kTag, "Receive an invalid message without an id: {}", shown);
    return;
  }
  if (response.IsError()) {
    VLOG_WARN(kTag, "Receive error response: {}", shown);
  } else {
    VLOG_INFO(kTag, "Receive normal response: {}", shown);
  }
  const std::string id_text = utils::LogText(response.Id());
  // Other programs' answers come on the same topic; only ours are built.
  const std::shared_ptr<PendingRequest> pending = PendingOf(response.Id());
  if (!pending) {
    VLOG_WARN(kTag, "Received a response that no one was waiting for, id {}", id_text);
  } else if (std::chrono::steady_clock::now() > pending->deadline) {
    VLOG_WARN(kTag, "Response time has exceeded the validity period, id {}", id_text);
  } else {
    pending->result.set_value(Json::parse(response.Payload()));
  }
}

}  // namespace varnel::comms

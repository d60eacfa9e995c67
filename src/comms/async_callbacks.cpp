#include "comms/async_callbacks.h"

#include <algorithm>
#include <string>
#include <utility>

#include "comms/client_mqtt_async.h"
#include "comms/mqtt_library.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "MQTT";
/// Of what TLS says about one attempt; the log has all of it.
constexpr size_t kMaxTlsText = 500;

template <class Body>
bool Run(void* context, Body body) noexcept {
  return CallbackRegistry<ClientMqttAsync>::Instance().Run(context, body);
}

uint32_t Number(void* context) {
  return CallbackRegistry<ClientMqttAsync>::NumberOf(context);
}

size_t ReceiveMaximum(const MQTTAsync_successData5* data) {
  if (!data) return SendWindow::kDefaultReceiveMaximum;
  const auto* properties = &data->properties;
  const auto named = MQTTPROPERTY_CODE_RECEIVE_MAXIMUM;
  // The library's functions do not change the properties that they read.
  auto* readable = const_cast<MQTTProperties*>(properties);
  if (!MQTTProperties_hasProperty(readable, named)) return SendWindow::kDefaultReceiveMaximum;
  return static_cast<size_t>(MQTTProperties_getNumericValue(readable, named));
}

}  // namespace

void AsyncCallbacks::Connected(void* context, MQTTAsync_successData5* data) {
  Run(context, [=](ClientMqttAsync& client) { client.OnAccepted(Number(context), data); });
}

void AsyncCallbacks::ConnectFailed(void* context, MQTTAsync_failureData5* data) {
  Run(context, [=](ClientMqttAsync& client) { client.OnConnectFailed(Number(context), data); });
}

void AsyncCallbacks::ConnectionLost(void* context, char* cause) {
  Run(context, [cause](ClientMqttAsync& client) { client.OnConnectionLost(cause); });
}

void AsyncCallbacks::ServerDisconnect(void* context, MQTTProperties*, MQTTReasonCodes reason) {
  Run(context, [reason](ClientMqttAsync& client) { client.OnServerDisconnect(reason); });
}

int AsyncCallbacks::MessageArrived(void* context, char* topic, int topic_length,
                                   MQTTAsync_message* message) {
  const bool found = Run(
      context, [&](ClientMqttAsync& client) { client.OnMessage(topic, topic_length, message); });
  if (!found) VLOG_WARN(kTag, "{}: message arrived but client is null", "MQTT client");
  if (message) MQTTAsync_freeMessage(&message);
  if (topic) MQTTAsync_free(topic);
  return 1;
}

void AsyncCallbacks::Subscribed(void* context, MQTTAsync_successData5*) {
  Run(context, [=](ClientMqttAsync& client) { client.OnSubscribed(Number(context)); });
}

void AsyncCallbacks::SubscribeFailed(void* context, MQTTAsync_failureData5* data) {
  Run(context, [=](ClientMqttAsync& client) { client.OnSubscribeFailed(Number(context), data); });
}

void AsyncCallbacks::Sent(void* context, MQTTAsync_successData5* data) {
  Run(context, [=](ClientMqttAsync& client) { client.OnSent(Number(context), data); });
}

void AsyncCallbacks::SendFailed(void* context, MQTTAsync_failureData5* data) {
  Run(context, [=](ClientMqttAsync& client) { client.OnSendFailed(Number(context), data); });
}

void AsyncCallbacks::Disconnected(void* context, MQTTAsync_successData5*) {
  Run(context, [](ClientMqttAsync& client) { client.OnDisconnected(); });
}

void AsyncCallbacks::DisconnectFailed(void* context, MQTTAsync_failureData5*) {
  Run(context, [](ClientMqttAsync& client) { client.OnDisconnected(); });
}

int AsyncCallbacks::TlsError(const char* text, size_t length, void* context) {
  Run(context, [=](ClientMqttAsync& client) { client.OnTlsError(text, length); });
  return LogTlsError(text, length, nullptr);
}

void ClientMqttAsync::OnAccepted(uint32_t attempt, const MQTTAsync_successData5* data) {
  thread_.Post(
      [this, attempt, maximum = ReceiveMaximum(data)] { HandleAccepted(attempt, maximum); });
}

void ClientMqttAsync::OnConnectFailed(uint32_t attempt, const MQTTAsync_failureData5* data) {
  Cause cause;
  if (data) {
    cause = {data->code, static_cast<int>(data->reasonCode), data->message ? data->message : ""};
  }
  VLOG_ERROR(kTag, "{}: connection failed, rc: {}, reasonCode: {}", Name(), cause.return_code,
             cause.reason_code);
  (void)Drop(attempt, cause);
}

void ClientMqttAsync::OnConnectionLost(const char* cause) {
  if (state_.Ending()) {
    VLOG_INFO(kTag, "{}: disconnecting, skipping connection-lost handling", Name());
    return;
  }
  const std::string text = cause ? cause : "unknown";
  VLOG_WARN(kTag, "{}: connection lost, cause: {}", Name(), text);
  (void)Drop(handle_attempt_, {.text = text});
}

/// The library does not call its connection-lost callback after this one.
void ClientMqttAsync::OnServerDisconnect(MQTTReasonCodes reason) {
  const char* name = MQTTReasonCode_toString(reason);
  const std::string text = name ? name : "unknown";
  VLOG_WARN(kTag, "{}: broker ended the connection, reasonCode: {} ({})", Name(),
            static_cast<int>(reason), text);
  if (state_.Ending()) return;
  (void)Drop(handle_attempt_, {.reason_code = static_cast<int>(reason), .text = text});
}

void ClientMqttAsync::OnMessage(const char* topic, int topic_length,
                                const MQTTAsync_message* message) {
  if (state_.Ending()) {
    VLOG_INFO(kTag, "{}: disconnecting, skipping message processing", Name());
    return;
  }
  Accept(handle_attempt_, topic, topic_length, message ? message->payload : nullptr,
         message ? message->payloadlen : -1, message && message->retained != 0);
}

void ClientMqttAsync::OnSubscribed(uint32_t attempt) {
  thread_.Post([this, attempt] { HandleAcknowledged(attempt); });
}

void ClientMqttAsync::OnSubscribeFailed(uint32_t attempt, const MQTTAsync_failureData5* data) {
  Cause cause{.text = "a subscription was refused"};
  if (data) {
    cause.return_code = data->code;
    cause.reason_code = static_cast<int>(data->reasonCode);
  }
  VLOG_ERROR(kTag, "{}: subscribe failed, rc: {}, reasonCode: {}, will retry on next reconnect",
             Name(), cause.return_code, cause.reason_code);
  thread_.Post([this, attempt, cause] { HandleRefusedSubscription(attempt, cause); });
}

void ClientMqttAsync::OnSent(uint32_t number, const MQTTAsync_successData5* data) {
  if (data) VLOG_DEBUG(kTag, "publish success on topic: {}", data->alt.pub.destinationName);
  window_.Leave(number);
}

void ClientMqttAsync::OnSendFailed(uint32_t number, const MQTTAsync_failureData5* data) {
  VLOG_ERROR(kTag, "publish failed, rc: {}, reasonCode: {}", data ? data->code : 0,
             static_cast<int>(data ? data->reasonCode : MQTTREASONCODE_SUCCESS));
  window_.Leave(number);
}

void ClientMqttAsync::OnDisconnected() {
  {
    const utils::MutexLock lock(event_mutex_);
    disconnected_ = true;
  }
  event_wake_.NotifyAll();
}

void ClientMqttAsync::OnTlsError(const char* text, size_t length) {
  const utils::MutexLock lock(event_mutex_);
  if (tls_text_.size() < kMaxTlsText) tls_text_.append(text, std::min(length, kMaxTlsText));
}

std::string ClientMqttAsync::TakeTlsText() {
  const utils::MutexLock lock(event_mutex_);
  return utils::LogText(std::exchange(tls_text_, {}));
}

}  // namespace varnel::comms

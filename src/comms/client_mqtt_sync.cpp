#include "comms/client_mqtt_sync.h"

#include <MQTTClient.h>

#include <chrono>
#include <cstring>
#include <utility>

#include "comms/mqtt_library.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "MQTT";
constexpr int kDisconnectLimitMs = 500;
constexpr unsigned long kDeliveryLimitMs = 5000;

const char* ErrorText(int code) {
  const char* text = MQTTClient_strerror(code);
  return text ? text : "unknown";
}

std::string LibraryVersion() {
  for (const MQTTClient_nameValue* info = MQTTClient_getVersionInfo(); info && info->name; ++info) {
    if (std::string_view(info->name) == "Version") return info->value;
  }
  return {};
}

/// Takes the reason or return code out of a response and frees it. The library stores its negative
/// return codes in the enum too, which has no such values: copied as bytes.
int TakeCode(MQTTResponse response) {
  int code = 0;
  static_assert(sizeof code == sizeof response.reasonCode);
  std::memcpy(&code, &response.reasonCode, sizeof code);
  MQTTResponse_free(response);
  return code;
}

}  // namespace

/// What the library calls. Each finds its client, which may be gone, and does nothing else.
struct SyncCallbacks {
  using Client = ClientMqttSync;
  template <class Body>
  static void Run(void* context, Body body) noexcept {
    (void)CallbackRegistry<Client>::Instance().Run(context, body);
  }

  static void ConnectionLost(void* context, char* cause) {
    Run(context, [cause](Client& client) { client.OnConnectionLost(cause); });
  }
  static int MessageArrived(void* context, char* topic, int topic_length,
                            MQTTClient_message* message) {
    Run(context, [&](Client& client) {
      client.OnMessage(topic, topic_length, message ? message->payload : nullptr,
                       message ? message->payloadlen : -1, message && message->retained != 0);
    });
    if (message) MQTTClient_freeMessage(&message);
    if (topic) MQTTClient_free(topic);
    return 1;
  }
};

void ClientMqttSync::DestroyHandle::operator()(void* handle) const {
  MQTTClient_destroy(&handle);
}

ClientMqttSync::ClientMqttSync(std::string name, Qos subscribe_qos)
    : ClientMqttBase(std::move(name)), subscribe_qos_(subscribe_qos) {
  MQTTClient_setTraceLevel(MQTTCLIENT_TRACE_ERROR);
}

ClientMqttSync::~ClientMqttSync() {
  StopProcessing();
  disconnecting_ = true;
  {
    const utils::MutexLock lock(api_mutex_);
    CloseHandle();
  }
  Registry::Instance().AwaitUnused(this);
}

CommsStatus ClientMqttSync::Connect(const MqttConnectSettings& settings) {
  if (closed_) return CommsStatus::kNotInitialized;
  if (connecting_.exchange(true)) {
    VLOG_WARN(kTag, "{}: Connect called while already connecting, ignored", Name());
    return CommsStatus::kBusy;
  }
  if (connected_) {
    VLOG_ERROR(kTag, "{}: already connected, call Disconnect first", Name());
    connecting_ = false;
    return CommsStatus::kFailure;
  }
  utils::MutexLock lock(api_mutex_);
  settings_ = settings;
  CloseHandle();
  const CommsStatus status = Attempt();
  lock.unlock();
  return EndAttempt(status);
}

CommsStatus ClientMqttSync::Reconnect() {
  if (connected_) return CommsStatus::kOk;
  if (connecting_.exchange(true)) {
    VLOG_WARN(kTag, "{}: already connecting, reconnect ignored", Name());
    return CommsStatus::kBusy;
  }
  utils::MutexLock lock(api_mutex_);
  if (!settings_) {
    VLOG_ERROR(kTag, "{}: reconnect called but client not initialized", Name());
    connecting_ = false;
    return CommsStatus::kNotInitialized;
  }
  const CommsStatus status = Attempt();
  lock.unlock();
  return EndAttempt(status);
}

CommsStatus ClientMqttSync::EndAttempt(CommsStatus status) {
  connecting_ = false;
  const bool up = status == CommsStatus::kOk;
  Report({up ? LinkEvent::Kind::kConnected : LinkEvent::Kind::kFailed, attempt_, Code(status)});
  return status;
}

CommsStatus ClientMqttSync::Attempt() {
  ++attempt_;
  if (!handle_) {
    if (const CommsStatus created = CreateHandle(); created != CommsStatus::kOk) return created;
  }
  if (const CommsStatus status = ConnectHandle(); status != CommsStatus::kOk) {
    CloseHandle();
    return status;
  }
  SetNoDelayTowards(settings_->port);
  connected_ = true;  // before the subscriptions, so that a loss meanwhile is not overwritten
  if (const CommsStatus status = SubscribeAll(); status != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "{}: subscribe failed after connect, disconnecting", Name());
    MQTTClient_disconnect5(handle_.get(), kDisconnectLimitMs, MQTTREASONCODE_SUCCESS, nullptr);
    CloseHandle();
    return status;
  }
  VLOG_INFO(kTag, "{}: connected", Name());
  return CommsStatus::kOk;
}

CommsStatus ClientMqttSync::CreateHandle() {
  MQTTClient_createOptions options = MQTTClient_createOptions_initializer;
  options.MQTTVersion = MQTTVERSION_5;
  MQTTClient created = nullptr;
  int code = MQTTClient_createWithOptions(&created, ServerUri(*settings_, LibraryVersion()).c_str(),
                                          settings_->client_id.c_str(), MQTTCLIENT_PERSISTENCE_NONE,
                                          nullptr, &options);
  if (code != MQTTCLIENT_SUCCESS) {
    VLOG_ERROR(kTag, "{}: failed to create client, rc {}: {}", Name(), code, ErrorText(code));
    return CommsStatus::kFailure;
  }
  handle_.reset(created);
  context_ = Registry::Instance().Register(this);
  code = MQTTClient_setCallbacks(created, context_, SyncCallbacks::ConnectionLost,
                                 SyncCallbacks::MessageArrived, nullptr);
  if (code == MQTTCLIENT_SUCCESS) return CommsStatus::kOk;
  VLOG_ERROR(kTag, "{}: failed to set callbacks, rc {}", Name(), code);
  CloseHandle();
  return CommsStatus::kFailure;
}

CommsStatus ClientMqttSync::ConnectHandle() {
  MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer5;
  options.keepAliveInterval = settings_->keep_alive_s;
  options.connectTimeout = settings_->connect_timeout_s;
  options.cleanstart = 1;
  options.username = OrNull(settings_->user_name);
  options.password = OrNull(settings_->password);
  MQTTClient_SSLOptions tls = MQTTClient_SSLOptions_initializer;
  SetTls(*settings_, tls);
  tls.ssl_error_cb = LogTlsError;
  if (settings_->Secure()) options.ssl = &tls;

  const auto start = std::chrono::steady_clock::now();
  const int code = TakeCode(MQTTClient_connect5(handle_.get(), &options, nullptr, nullptr));
  if (code == MQTTCLIENT_SUCCESS) return CommsStatus::kOk;
  const auto elapsed = std::chrono::steady_clock::now() - start;
  if (elapsed >= std::chrono::seconds(settings_->connect_timeout_s)) {
    VLOG_ERROR(kTag, "{}: connect timeout", Name());
    return CommsStatus::kTimeout;
  }
  VLOG_ERROR(kTag, "{}: failed to connect, rc {}: {}", Name(), code, ErrorText(code));
  return CommsStatus::kFailure;
}

CommsStatus ClientMqttSync::SubscribeAll() {
  for (const std::string& filter : ListenerFilters()) {
    if (const CommsStatus status = SubscribeLocked(filter); status != CommsStatus::kOk)
      return status;
  }
  return CommsStatus::kOk;
}

CommsStatus ClientMqttSync::SubscribeLocked(const std::string& filter) {
  MQTTSubscribe_options options = MQTTSubscribe_options_initializer;
  options.retainHandling = kRetainedOnlyToNewSubscriptions;
  const int code = TakeCode(MQTTClient_subscribe5(
      handle_.get(), filter.c_str(), static_cast<int>(subscribe_qos_), &options, nullptr));
  if (code >= 0 && code <= static_cast<int>(MQTTREASONCODE_GRANTED_QOS_2)) return CommsStatus::kOk;
  VLOG_ERROR(kTag, "{}: failed to subscribe topic {}, rc: {}", Name(), filter, code);
  return CommsStatus::kFailure;
}

CommsStatus ClientMqttSync::Subscribe(const std::string& filter) {
  if (!connected_) return CommsStatus::kOk;
  const utils::MutexLock lock(api_mutex_);
  return handle_ ? SubscribeLocked(filter) : CommsStatus::kNotInitialized;
}

void ClientMqttSync::Unsubscribe(const std::string& filter) {
  if (!connected_) return;
  const utils::MutexLock lock(api_mutex_);
  if (!handle_) return;
  const int code = TakeCode(MQTTClient_unsubscribe5(handle_.get(), filter.c_str(), nullptr));
  if (code != MQTTCLIENT_SUCCESS)
    VLOG_WARN(kTag, "{}: failed to unsubscribe topic {}, rc: {}", Name(), filter, code);
}

CommsStatus ClientMqttSync::SendRefusal() const {
  if (disconnecting_) {
    VLOG_WARN(kTag, "{}: client is disconnecting, cannot send", Name());
    return CommsStatus::kNotConnected;
  }
  if (!connected_) {
    VLOG_WARN(kTag, "{}: sync client not connected", Name());
    return CommsStatus::kNotConnected;
  }
  return CommsStatus::kOk;
}

CommsStatus ClientMqttSync::Send(const std::string& topic, Qos qos, bool retain,
                                 std::string_view payload) {
  if (const CommsStatus refusal = SendRefusal(); refusal != CommsStatus::kOk) return refusal;
  if (payload.size() > kMaxMqttPayload || topic.size() > kMaxMqttTopic) {
    return CommsStatus::kInvalidArgument;
  }
  const utils::MutexLock lock(api_mutex_);
  return handle_ ? Publish(topic, qos, retain, payload) : CommsStatus::kNotInitialized;
}

CommsStatus ClientMqttSync::SendOn(uint32_t link, const std::string& topic, Qos qos,
                                   std::string_view payload) {
  return IsLive(link) ? Send(topic, qos, false, payload) : CommsStatus::kNotConnected;
}

LinkPhase ClientMqttSync::Phase() const {
  if (connected_) return LinkPhase::kUp;
  return connecting_ ? LinkPhase::kConnecting : LinkPhase::kDown;
}

bool ClientMqttSync::IsLive(uint32_t link) const {
  return connected_ && attempt_ == link;
}

CommsStatus ClientMqttSync::Publish(const std::string& topic, Qos qos, bool retain,
                                    std::string_view payload) {
  MQTTClient_message message = MQTTClient_message_initializer;
  message.struct_version = 1;
  message.payload =
      const_cast<char*>(payload.data());  // the library copies it and never writes to it
  message.payloadlen = static_cast<int>(payload.size());
  message.qos = static_cast<int>(qos);
  message.retained = retain ? 1 : 0;
  MQTTClient_deliveryToken token = 0;
  int code = TakeCode(MQTTClient_publishMessage5(handle_.get(), topic.c_str(), &message, &token));
  if (code == MQTTCLIENT_SUCCESS && qos != Qos::kAtMostOnce) {
    code = MQTTClient_waitForCompletion(handle_.get(), token, kDeliveryLimitMs);
  }
  if (code == MQTTCLIENT_SUCCESS) return CommsStatus::kOk;
  VLOG_ERROR(kTag, "{}: sync send failed on topic {}, rc: {}", Name(), utils::LogText(topic), code);
  if (code == MQTTCLIENT_DISCONNECTED) connected_ = false;
  return CommsStatus::kFailure;
}

void ClientMqttSync::Close() {
  closed_ = true;
  Disconnect();
}

void ClientMqttSync::Disconnect() {
  disconnecting_ = true;
  const bool was_up = connected_;
  {
    const utils::MutexLock lock(api_mutex_);
    settings_.reset();
    if (handle_ && connected_) {
      const int code = MQTTClient_disconnect5(handle_.get(), kDisconnectLimitMs,
                                              MQTTREASONCODE_SUCCESS, nullptr);
      if (code != MQTTCLIENT_SUCCESS)
        VLOG_ERROR(kTag, "{}: sync disconnect failed, rc: {}", Name(), code);
    }
    CloseHandle();
  }
  disconnecting_ = false;
  VLOG_INFO(kTag, "{}: sync disconnected", Name());
  if (was_up) Report({LinkEvent::Kind::kEnded, attempt_});
}

void ClientMqttSync::CloseHandle() {
  connected_ = false;
  if (!handle_) return;
  Registry::Instance().Retire(context_);
  context_ = nullptr;
  handle_.reset();
}

void ClientMqttSync::OnConnectionLost(const char* cause) {
  if (disconnecting_) {
    VLOG_INFO(kTag, "{}: disconnecting, skipping connection-lost handling", Name());
    return;
  }
  connected_ = false;
  VLOG_WARN(kTag, "{}: connection lost, cause: {}", Name(), cause ? cause : "unknown");
  Report({LinkEvent::Kind::kLost, attempt_, 0, 0, cause ? cause : ""});
}

void ClientMqttSync::OnMessage(const char* topic, int topic_length, const void* bytes, int length,
                               bool retained) {
  if (disconnecting_) {
    VLOG_INFO(kTag, "{}: disconnecting, skipping message processing", Name());
    return;
  }
  Accept(attempt_, topic, topic_length, bytes, length, retained);
}

}  // namespace varnel::comms

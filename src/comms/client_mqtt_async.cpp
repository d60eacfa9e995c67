#include "comms/client_mqtt_async.h"

#include <algorithm>
#include <utility>

#include "comms/mqtt_library.h"
#include "comms/mqtt_trace.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "MQTT";
constexpr int kMaxBufferedMessages = 100;
constexpr std::chrono::milliseconds kRoomPoll{5};
constexpr int kDisconnectLimitMs = 500;
/// The broker does not send us more at once: the library would take any size into memory.
constexpr unsigned kMaxReceivedPacket = 64U << 20;

const char* ErrorText(int code) {
  const char* text = MQTTAsync_strerror(code);
  return text ? text : "unknown";
}

const char* OrNull(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

MQTTAsync_SSLOptions TlsOptions(const MqttConnectSettings& settings) {
  MQTTAsync_SSLOptions options = MQTTAsync_SSLOptions_initializer;
  options.enableServerCertAuth = 1;
  options.verify = 1;  // the name in the certificate must be the host's
  options.trustStore = OrNull(settings.root_ca);
  options.disableDefaultTrustStore = 1;  // nobody but the given root vouches for the broker
  options.keyStore = OrNull(settings.client_certificate);
  options.privateKey = OrNull(settings.client_key);
  options.ssl_error_cb = LogTlsError;
  return options;
}

}  // namespace

/// What the library calls. Each finds its client, which may be gone, and does nothing else.
struct AsyncCallbacks {
  using Client = ClientMqttAsync;
  template <class Body>
  static bool Run(void* context, Body body) noexcept {
    return CallbackRegistry<Client>::Instance().Run(context, body);
  }

  static void Connected(void* context, MQTTAsync_successData5*) {
    Run(context, [](Client& client) { client.OnConnected(); });
  }
  static void ConnectFailed(void* context, MQTTAsync_failureData5* data) {
    Run(context, [data](Client& client) { client.OnConnectFailed(data); });
  }
  static void ConnectionLost(void* context, char* cause) {
    Run(context, [cause](Client& client) { client.OnConnectionLost(cause); });
  }
  static void ServerDisconnect(void* context, MQTTProperties*, MQTTReasonCodes reason) {
    Run(context, [reason](Client& client) { client.OnServerDisconnect(reason); });
  }
  static int MessageArrived(void* context, char* topic, int topic_length,
                            MQTTAsync_message* message) {
    const bool found =
        Run(context, [&](Client& client) { client.OnMessage(topic, topic_length, message); });
    if (!found) VLOG_WARN(kTag, "{}: message arrived but client is null", "MQTT client");
    if (message) MQTTAsync_freeMessage(&message);
    if (topic) MQTTAsync_free(topic);
    return 1;
  }
  static void SubscribeFailed(void* context, MQTTAsync_failureData5* data) {
    Run(context, [data](Client& client) { client.OnSubscribeFailed(data); });
  }
  static void Sent(void* context, MQTTAsync_successData5* data) {
    Run(context, [data](Client& client) { client.OnSent(data); });
  }
  static void SendFailed(void* context, MQTTAsync_failureData5* data) {
    Run(context, [data](Client& client) { client.OnSendFailed(data); });
  }
  static void Disconnected(void* context, MQTTAsync_successData5*) {
    Run(context, [](Client& client) { client.OnDisconnected(); });
  }
  static void DisconnectFailed(void* context, MQTTAsync_failureData5*) {
    Run(context, [](Client& client) { client.OnDisconnected(); });
  }
};

ClientMqttAsync::ClientMqttAsync(std::string name, Qos subscribe_qos, PahoAsyncApi& api,
                                 utils::Clock& clock)
    : ClientMqttBase(std::move(name)),
      subscribe_qos_(subscribe_qos),
      api_(api),
      clock_(clock),
      handle_(nullptr, DestroyHandle{&api}) {}

ClientMqttAsync::~ClientMqttAsync() {
  StopProcessing();
  disconnecting_ = true;
  {
    std::lock_guard lock(api_mutex_);
    CloseHandle();
  }
  Registry::Instance().AwaitUnused(this);
}

CommsStatus ClientMqttAsync::Connect(const MqttConnectSettings& settings) {
  if (connecting_.exchange(true)) {
    VLOG_WARN(kTag, "{}: Connect called while already connecting, ignored", Name());
    return CommsStatus::kBusy;
  }
  const CommsStatus status =
      IsReachableByName(settings.host) ? ConnectLocked(settings) : RefuseHost(settings);
  if (status != CommsStatus::kOk) ReportConnectionLost();
  return status;
}

bool ClientMqttAsync::IsReachableByName(const std::string& host) {
  const std::string problem = api_.Resolve(host);
  if (!problem.empty()) VLOG_ERROR(kTag, "{}: host {}: {}", Name(), host, problem);
  return problem.empty();
}

CommsStatus ClientMqttAsync::RefuseHost(const MqttConnectSettings& settings) {
  std::lock_guard lock(api_mutex_);
  CloseHandle();
  settings_ = settings;
  connecting_ = false;
  return CommsStatus::kFailure;
}

CommsStatus ClientMqttAsync::EndAttempt(CommsStatus status) {
  if (status != CommsStatus::kOk) connecting_ = false;
  return status;
}

CommsStatus ClientMqttAsync::ConnectLocked(const MqttConnectSettings& settings) {
  std::lock_guard lock(api_mutex_);
  CloseHandle();
  settings_ = settings;
  if (const CommsStatus created = CreateHandle(); created != CommsStatus::kOk)
    return EndAttempt(created);
  const int code = StartConnect();
  if (code == MQTTASYNC_SUCCESS) {
    VLOG_INFO(kTag, "{}: async connection started", Name());
    return CommsStatus::kOk;
  }
  VLOG_ERROR(kTag, "{}: failed to start async connection, rc: {}", Name(), code);
  DestroyHandleNow();
  return EndAttempt(CommsStatus::kFailure);
}

CommsStatus ClientMqttAsync::Reconnect() {
  if (connected_) return CommsStatus::kOk;
  if (connecting_.exchange(true)) {
    VLOG_WARN(kTag, "{}: already connecting, reconnect ignored", Name());
    return CommsStatus::kBusy;
  }
  const std::string host = KeptHost();
  if (!host.empty() && !IsReachableByName(host)) {
    connecting_ = false;
    ReportConnectionLost();
    return CommsStatus::kFailure;
  }
  const CommsStatus status = ReconnectLocked();
  if (status == CommsStatus::kFailure) ReportConnectionLost();
  return status;
}

std::string ClientMqttAsync::KeptHost() {
  std::lock_guard lock(api_mutex_);
  return settings_ ? settings_->host : std::string();
}

CommsStatus ClientMqttAsync::ReconnectLocked() {
  std::lock_guard lock(api_mutex_);
  if (!settings_) {
    VLOG_ERROR(kTag, "{}: reconnect called but client not initialized", Name());
    return EndAttempt(CommsStatus::kNotInitialized);
  }
  if (connected_) {  // the attempt that just ended was successful
    connecting_ = false;
    return CommsStatus::kOk;
  }
  // An attempt that failed at once has destroyed the handle; its settings are still here.
  if (!handle_) {
    if (const CommsStatus created = CreateHandle(); created != CommsStatus::kOk)
      return EndAttempt(created);
  } else {
    // We may have been told of the failure by a library thread that is still taking that attempt
    // apart, and would take ours apart with it.
    api_.AwaitUnlocked(handle_.get());
  }
  const int code = StartConnect();
  if (code != MQTTASYNC_SUCCESS) {
    VLOG_ERROR(kTag, "{}: reconnect failed, rc: {}", Name(), code);
    DestroyHandleNow();
    return EndAttempt(CommsStatus::kFailure);
  }
  VLOG_INFO(kTag, "{}: async reconnect started", Name());
  return CommsStatus::kOk;
}

CommsStatus ClientMqttAsync::CreateHandle() {
  MQTTAsync_createOptions options = MQTTAsync_createOptions_initializer5;
  options.sendWhileDisconnected = 0;
  options.maxBufferedMessages = kMaxBufferedMessages;
  options.restoreMessages = 1;
  MQTTAsync created = nullptr;
  const int code =
      api_.Create(&created, ServerUri(*settings_, api_.Version()), settings_->client_id, options);
  if (code != MQTTASYNC_SUCCESS) {
    VLOG_ERROR(kTag, "{}: failed to create client, rc: {} ({})", Name(), code, ErrorText(code));
    return CommsStatus::kFailure;
  }
  handle_.reset(created);
  context_ = Registry::Instance().Register(this);
  return InstallCallbacks();
}

CommsStatus ClientMqttAsync::InstallCallbacks() {
  InstallMqttTrace();
  int code = api_.SetCallbacks(handle_.get(), context_, AsyncCallbacks::ConnectionLost,
                               AsyncCallbacks::MessageArrived);
  if (code == MQTTASYNC_SUCCESS) {
    code = api_.SetDisconnected(handle_.get(), context_, AsyncCallbacks::ServerDisconnect);
  }
  if (code == MQTTASYNC_SUCCESS) return CommsStatus::kOk;
  VLOG_ERROR(kTag, "{}: failed to set callbacks, rc: {}", Name(), code);
  DestroyHandleNow();
  return CommsStatus::kFailure;
}

int ClientMqttAsync::StartConnect() {
  const MqttConnectSettings& settings = *settings_;
  port_ = settings.port;
  live_handle_ = handle_.get();
  MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer5;
  options.keepAliveInterval = settings.keep_alive_s;
  options.connectTimeout = settings.connect_timeout_s;
  options.cleanstart = 1;
  options.maxInflight = 65535;
  options.automaticReconnect = 0;
  options.minRetryInterval = 1;
  options.maxRetryInterval = 60;
  options.username = OrNull(settings.user_name);
  options.password = OrNull(settings.password);
  options.onSuccess5 = AsyncCallbacks::Connected;
  options.onFailure5 = AsyncCallbacks::ConnectFailed;
  options.context = context_;
  MQTTAsync_SSLOptions tls = TlsOptions(settings);
  if (settings.Secure()) options.ssl = &tls;
  MQTTProperty limit{};
  limit.identifier = MQTTPROPERTY_CODE_MAXIMUM_PACKET_SIZE;
  limit.value.integer4 = kMaxReceivedPacket;
  MQTTProperties properties = MQTTProperties_initializer;
  if (MQTTProperties_add(&properties, &limit) == 0) options.connectProperties = &properties;
  const int code = api_.Connect(handle_.get(), options);
  MQTTProperties_free(&properties);
  return code;
}

void ClientMqttAsync::Disconnect() {
  disconnecting_ = true;
  {
    std::lock_guard lock(api_mutex_);
    settings_.reset();
    CloseHandle();
    connecting_ = false;
  }
  disconnecting_ = false;
  VLOG_INFO(kTag, "{}: disconnected", Name());
}

void ClientMqttAsync::CloseHandle() {
  if (!handle_) return;
  if (!Registry::Instance().WaitIdle(context_, clock_, kCallbackLimit)) {
    VLOG_WARN(kTag, "{}: timed out waiting for active callbacks, forcing disconnect", Name());
  }
  if (connected_) RequestDisconnect();
  DestroyHandleNow();
}

void ClientMqttAsync::RequestDisconnect() {
  {
    std::lock_guard lock(event_mutex_);
    disconnected_ = false;
  }
  MQTTAsync_disconnectOptions options = MQTTAsync_disconnectOptions_initializer5;
  options.timeout = kDisconnectLimitMs;
  options.onSuccess5 = AsyncCallbacks::Disconnected;
  options.onFailure5 = AsyncCallbacks::DisconnectFailed;
  options.context = context_;
  if (api_.Disconnect(handle_.get(), options) != MQTTASYNC_SUCCESS) return;
  std::unique_lock lock(event_mutex_);
  const auto deadline = clock_.Now() + std::chrono::milliseconds(2 * kDisconnectLimitMs);
  clock_.WaitUntil(lock, event_wake_, deadline, [this] { return disconnected_; });
}

void ClientMqttAsync::DestroyHandleNow() {
  Registry::Instance().Retire(context_);
  context_ = nullptr;
  live_handle_ = nullptr;
  handle_.reset();
  connected_ = false;
}

CommsStatus ClientMqttAsync::SendRefusal() const {
  if (!live_handle_) {
    VLOG_ERROR(kTag, "{}: client handle is null, cannot send", Name());
    return CommsStatus::kNotInitialized;
  }
  if (disconnecting_) {
    VLOG_WARN(kTag, "{}: client is disconnecting, cannot send", Name());
    return CommsStatus::kNotConnected;
  }
  if (!connected_) {
    VLOG_WARN(kTag, "{}: not connected", Name());
    return CommsStatus::kNotConnected;
  }
  return CommsStatus::kOk;
}

CommsStatus ClientMqttAsync::Send(const std::string& topic, Qos qos, bool retain,
                                  std::string_view payload) {
  if (payload.size() > kMaxMqttPayload || topic.size() > kMaxMqttTopic) {
    return CommsStatus::kInvalidArgument;
  }
  MQTTAsync_message message = MQTTAsync_message_initializer;
  message.payload =
      const_cast<char*>(payload.data());  // the library copies it and never writes to it
  message.payloadlen = static_cast<int>(payload.size());
  message.qos = static_cast<int>(qos);
  message.retained = retain ? 1 : 0;

  const auto deadline = clock_.Now() + kRoomLimit;
  while (true) {
    if (const CommsStatus refusal = SendRefusal(); refusal != CommsStatus::kOk) return refusal;
    uint64_t seen = 0;
    uint64_t connection = 0;
    {
      std::lock_guard lock(event_mutex_);
      connection = connections_;
      seen = sends_finished_;
    }
    const int code = TrySend(topic, message);
    if (code == MQTTASYNC_SUCCESS) return CommsStatus::kOk;
    if (code != MQTTASYNC_MAX_BUFFERED_MESSAGES || !WaitForRoom(deadline, seen))
      return SendFailed(topic, code, connection);
  }
}

int ClientMqttAsync::TrySend(const std::string& topic, const MQTTAsync_message& message) {
  std::lock_guard lock(api_mutex_);
  if (!handle_) return MQTTASYNC_DISCONNECTED;
  MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
  options.onSuccess5 = AsyncCallbacks::Sent;
  options.onFailure5 = AsyncCallbacks::SendFailed;
  options.context = context_;
  return api_.Send(handle_.get(), topic, message, options);
}

bool ClientMqttAsync::WaitForRoom(utils::Clock::TimePoint deadline, uint64_t seen) {
  const auto now = clock_.Now();
  if (now >= deadline) return false;
  std::unique_lock lock(event_mutex_);
  clock_.WaitUntil(lock, event_wake_, std::min(deadline, now + kRoomPoll),
                   [&] { return sends_finished_ != seen; });
  return true;
}

CommsStatus ClientMqttAsync::SendFailed(const std::string& topic, int code, uint64_t connection) {
  VLOG_ERROR(kTag, "{}: send failed on topic {}, rc: {}", Name(), utils::LogText(topic), code);
  if (code != MQTTASYNC_DISCONNECTED) return CommsStatus::kFailure;
  VLOG_WARN(kTag, "{}: send on topic {} detected disconnection, marking offline", Name(),
            utils::LogText(topic));
  // The connection that failed may be over and its successor up: that one stays.
  std::lock_guard lock(event_mutex_);
  if (connection == connections_) connected_ = false;
  return CommsStatus::kNotConnected;
}

CommsStatus ClientMqttAsync::Subscribe(const std::string& filter) {
  std::lock_guard lock(api_mutex_);
  if (!handle_) return CommsStatus::kNotInitialized;
  return SubscribeNow(filter) == MQTTASYNC_SUCCESS ? CommsStatus::kOk : CommsStatus::kFailure;
}

int ClientMqttAsync::SubscribeNow(const std::string& filter) {
  MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
  options.subscribeOptions.retainHandling = kRetainedOnlyToNewSubscriptions;
  options.onFailure5 = AsyncCallbacks::SubscribeFailed;
  options.context = context_;
  const int code = api_.Subscribe(live_handle_, filter, static_cast<int>(subscribe_qos_), options);
  if (code != MQTTASYNC_SUCCESS) {
    VLOG_ERROR(kTag, "{}: failed to subscribe topic {}, rc: {}", Name(), filter, code);
  }
  return code;
}

void ClientMqttAsync::OnConnected() {
  SetNoDelayTowards(port_);
  connecting_ = false;
  if (!NoteConnection()) return;  // the library may report one connection twice
  VLOG_INFO(kTag, "{}: connected successfully", Name());
  for (const std::string& filter : ListenerFilters()) (void)SubscribeNow(filter);
}

bool ClientMqttAsync::NoteConnection() {
  std::lock_guard lock(event_mutex_);
  if (connected_.exchange(true)) return false;
  ++connections_;
  return true;
}

void ClientMqttAsync::OnConnectFailed(const MQTTAsync_failureData5* data) {
  VLOG_ERROR(kTag, "{}: connection failed, rc: {}, reasonCode: {}", Name(), data ? data->code : 0,
             static_cast<int>(data ? data->reasonCode : MQTTREASONCODE_SUCCESS));
  connected_ = false;
  connecting_ = false;
  if (!disconnecting_) ReportConnectionLost();
}

void ClientMqttAsync::OnConnectionLost(const char* cause) {
  if (disconnecting_) {
    VLOG_INFO(kTag, "{}: disconnecting, skipping connection-lost handling", Name());
    return;
  }
  connected_ = false;
  VLOG_WARN(kTag, "{}: connection lost, cause: {}", Name(), cause ? cause : "unknown");
  ReportConnectionLost();
}

/// The library does not call its connection-lost callback after this one.
void ClientMqttAsync::OnServerDisconnect(MQTTReasonCodes reason) {
  const char* text = MQTTReasonCode_toString(reason);
  VLOG_WARN(kTag, "{}: broker ended the connection, reasonCode: {} ({})", Name(),
            static_cast<int>(reason), text ? text : "unknown");
  if (disconnecting_) return;
  connected_ = false;
  ReportConnectionLost();
}

void ClientMqttAsync::OnMessage(const char* topic, int topic_length,
                                const MQTTAsync_message* message) {
  if (disconnecting_) {
    VLOG_INFO(kTag, "{}: disconnecting, skipping message processing", Name());
    return;
  }
  Accept(topic, topic_length, message ? message->payload : nullptr,
         message ? message->payloadlen : -1, message && message->retained != 0);
}

void ClientMqttAsync::OnSubscribeFailed(const MQTTAsync_failureData5* data) {
  VLOG_ERROR(kTag, "{}: subscribe failed, rc: {}, reasonCode: {}, will retry on next reconnect",
             Name(), data ? data->code : 0,
             static_cast<int>(data ? data->reasonCode : MQTTREASONCODE_SUCCESS));
}

void ClientMqttAsync::OnSent(const MQTTAsync_successData5* data) {
  if (data) VLOG_DEBUG(kTag, "publish success on topic: {}", data->alt.pub.destinationName);
  OnRoom();
}

void ClientMqttAsync::OnSendFailed(const MQTTAsync_failureData5* data) {
  VLOG_ERROR(kTag, "publish failed, rc: {}, reasonCode: {}", data ? data->code : 0,
             static_cast<int>(data ? data->reasonCode : MQTTREASONCODE_SUCCESS));
  OnRoom();
}

void ClientMqttAsync::OnRoom() {
  {
    std::lock_guard lock(event_mutex_);
    ++sends_finished_;
  }
  event_wake_.notify_all();
}

void ClientMqttAsync::OnDisconnected() {
  {
    std::lock_guard lock(event_mutex_);
    disconnected_ = true;
  }
  event_wake_.notify_all();
}

}  // namespace varnel::comms

#include "comms/client_mqtt_async.h"

#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include "comms/async_callbacks.h"
#include "comms/mqtt_library.h"
#include "comms/mqtt_trace.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "MQTT";
constexpr int kMaxBufferedMessages = 100;
/// A full library buffer is asked again after this time, should no message leave it before.
constexpr std::chrono::milliseconds kRoomPoll{5};
constexpr int kDisconnectLimitMs = 500;
/// The broker does not send us more at once: the library would take any size into memory.
constexpr unsigned kMaxReceivedPacket = 64U << 20;

const char* ErrorText(int code) {
  const char* text = MQTTAsync_strerror(code);
  return text ? text : "unknown";
}

bool IsNumeric(const std::string& host) {
  in6_addr address{};
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1 || host.starts_with('[');
}

}  // namespace

ClientMqttAsync::ClientMqttAsync(std::string name, Qos subscribe_qos, PahoAsyncApi& api,
                                 utils::Clock& clock)
    : ClientMqttBase(std::move(name)),
      subscribe_qos_(subscribe_qos),
      api_(api),
      clock_(clock),
      window_(clock),
      handle_(nullptr, DestroyHandle{&api}),
      thread_("mqtt-link", clock, [this] { HandleAttemptLimit(); }),
      lookups_(api) {}

ClientMqttAsync::~ClientMqttAsync() {
  StopProcessing();
  (void)state_.Close();
  thread_.Stop();
  CloseConnection();
  Registry::Instance().AwaitUnused(this);
}

CommsStatus ClientMqttAsync::Connect(const MqttConnectSettings& settings) {
  const utils::MutexLock order(order_mutex_);
  const LinkState::Begun begun = state_.Begin(settings);
  if (begun.status == CommsStatus::kBusy)
    VLOG_WARN(kTag, "{}: Connect called while already connecting, ignored", Name());
  if (begun.status == CommsStatus::kNotInitialized)
    VLOG_WARN(kTag, "{}: Connect called after its end, ignored", Name());
  return Begin(begun, Handle::kNew);
}

CommsStatus ClientMqttAsync::Reconnect() {
  const utils::MutexLock order(order_mutex_);
  const LinkState::Begun begun = state_.BeginAgain();
  if (begun.status == CommsStatus::kBusy)
    VLOG_WARN(kTag, "{}: already connecting, reconnect ignored", Name());
  if (begun.status == CommsStatus::kNotInitialized)
    VLOG_ERROR(kTag, "{}: reconnect called but client not initialized", Name());
  return Begin(begun, Handle::kKept);
}

CommsStatus ClientMqttAsync::Begin(const LinkState::Begun& begun, Handle handle) {
  if (begun.status != CommsStatus::kOk || begun.attempt == 0) return begun.status;
  thread_.Post([this, begun, handle] {
    if (handle == Handle::kNew) CloseConnection();
    if (begun.ended) Report({LinkEvent::Kind::kEnded, *begun.ended});
    RunAttempt(begun.attempt);
  });
  return CommsStatus::kOk;
}

void ClientMqttAsync::RunAttempt(uint32_t attempt) {
  pin_.reset();
  running_ = attempt;
  (void)TakeTlsText();
  const auto settings = state_.Settings(attempt);
  if (!settings) return;
  thread_.SetDeadline(clock_.Now() + kAttemptLimit);
  if (IsNumeric(settings->host)) {
    OpenConnection(attempt);
  } else {
    LookUp(attempt, *settings);
  }
}

void ClientMqttAsync::LookUp(uint32_t attempt, const MqttConnectSettings& settings) {
  const auto done = [this, attempt, host = settings.host](const NameAddresses& names) {
    thread_.Post([this, attempt, host, names] { HandleAddresses(attempt, host, names); });
  };
  if (lookups_.Start(settings.host, done)) return;
  HandleAddresses(attempt, settings.host, {{}, "earlier look-ups still wait for a name server"});
}

void ClientMqttAsync::HandleAddresses(uint32_t attempt, const std::string& host,
                                      const NameAddresses& names) {
  if (!state_.Settings(attempt)) return;
  if (names.addresses.empty()) {
    VLOG_ERROR(kTag, "{}: host {}: {}", Name(), host, names.problem);
    (void)Drop(attempt, {.text = "host " + host + ": " + names.problem});
    return;
  }
  // One address an attempt: the library tries only one, and the next attempt takes the next.
  pin_.emplace(host, names.addresses[address_turn_++ % names.addresses.size()]);
  OpenConnection(attempt);
}

void ClientMqttAsync::OpenConnection(uint32_t attempt) {
  const auto settings = state_.Settings(attempt);
  if (!settings) return;
  utils::MutexLock lock(api_mutex_);
  const bool again = handle_ != nullptr;
  if (again) {
    // We may have been told of the failure by a library thread that is still taking that attempt
    // apart, and would take ours apart with it.
    api_.AwaitUnlocked(handle_.get());
  } else if (CreateHandle(*settings) != CommsStatus::kOk) {
    lock.unlock();
    (void)Drop(attempt, {.text = "the MQTT library made no client"});
    return;
  }
  const int code = StartConnect(attempt, *settings);
  if (code == MQTTASYNC_SUCCESS) {
    VLOG_INFO(kTag, "{}: {}", Name(),
              again ? "async reconnect started" : "async connection started");
    return;
  }
  if (again) {
    VLOG_ERROR(kTag, "{}: reconnect failed, rc: {}", Name(), code);
  } else {
    VLOG_ERROR(kTag, "{}: failed to start async connection, rc: {}", Name(), code);
  }
  DestroyHandleNow();
  lock.unlock();
  (void)Drop(attempt, {.return_code = code});
}

CommsStatus ClientMqttAsync::CreateHandle(const MqttConnectSettings& settings) {
  MQTTAsync_createOptions options = MQTTAsync_createOptions_initializer5;
  options.sendWhileDisconnected = 0;
  options.maxBufferedMessages = kMaxBufferedMessages;
  options.restoreMessages = 1;
  MQTTAsync created = nullptr;
  const int code =
      api_.Create(&created, ServerUri(settings, api_.Version()), settings.client_id, options);
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

int ClientMqttAsync::StartConnect(uint32_t attempt, const MqttConnectSettings& settings) {
  handle_attempt_ = attempt;
  has_handle_ = true;
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
  options.context = Registry::WithNumber(context_, attempt);
  MQTTAsync_SSLOptions tls = MQTTAsync_SSLOptions_initializer;
  SetTls(settings, tls);
  tls.ssl_error_cb = AsyncCallbacks::TlsError;
  tls.ssl_error_context = context_;
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

void ClientMqttAsync::HandleAccepted(uint32_t attempt, size_t receive_maximum) {
  const auto settings = state_.Settings(attempt);
  if (!settings || state_.IsLive(attempt)) return;  // the library may tell it twice
  window_.Open(receive_maximum);                    // before anybody may send
  if (!state_.Accept(attempt)) return;
  accepted_ = true;
  pin_.reset();
  SetNoDelayTowards(settings->port);
  VLOG_INFO(kTag, "{}: connected successfully", Name());
  // One that cannot be asked for ends the attempt by itself.
  for (const std::string& filter : ListenerFilters()) (void)SubscribeOn(attempt, filter);
  HandleAcknowledged(attempt);
}

void ClientMqttAsync::HandleAcknowledged(uint32_t attempt) {
  if (!state_.Acknowledged(attempt)) return;
  thread_.SetDeadline(std::nullopt);
  Report({LinkEvent::Kind::kConnected, attempt});
}

void ClientMqttAsync::HandleRefusedSubscription(uint32_t attempt, const Cause& cause) {
  const auto settings = state_.Settings(attempt);
  if (!settings) return;
  if (!settings->needs_every_subscription) {
    HandleAcknowledged(attempt);
    return;
  }
  if (Drop(attempt, cause)) CloseConnection();
}

void ClientMqttAsync::HandleAttemptLimit() {
  const uint32_t attempt = running_;
  if (!state_.Settings(attempt) || state_.Phase() != LinkPhase::kConnecting) return;
  VLOG_ERROR(kTag, "{}: no outcome of the attempt to connect within {} s", Name(),
             kAttemptLimit.count());
  if (Drop(attempt, {.return_code = Code(CommsStatus::kTimeout), .text = "no outcome in time"}))
    CloseConnection();
}

bool ClientMqttAsync::Drop(uint32_t attempt, const Cause& cause) {
  const utils::MutexLock order(order_mutex_);
  const auto kind = state_.Drop(attempt);
  if (!kind) return false;
  thread_.Post([this, kind = *kind, attempt, cause] { FinishDrop(kind, attempt, cause); });
  return true;
}

void ClientMqttAsync::FinishDrop(LinkEvent::Kind kind, uint32_t attempt, const Cause& cause) {
  std::string text = cause.text;
  if (running_ == attempt) {  // its successor may run already
    thread_.SetDeadline(std::nullopt);
    accepted_ = false;
    pin_.reset();
    window_.Open(SendWindow::kDefaultReceiveMaximum);
    if (std::string tls = TakeTlsText(); !tls.empty()) text = std::move(tls);
  }
  Report({kind, attempt, cause.return_code, cause.reason_code, text});
}

std::shared_future<void> ClientMqttAsync::PostEnd(std::optional<uint32_t> ended) {
  auto done = std::make_shared<std::promise<void>>();
  thread_.Post([this, ended, done] {
    FinishEnd(ended);
    done->set_value();
  });
  return done->get_future().share();
}

void ClientMqttAsync::FinishEnd(std::optional<uint32_t> ended) {
  thread_.SetDeadline(std::nullopt);
  CloseConnection();
  pin_.reset();  // not before: a connection that is only asked for still looks the name up
  window_.Open(SendWindow::kDefaultReceiveMaximum);
  state_.Ended();
  VLOG_INFO(kTag, "{}: disconnected", Name());
  if (ended) Report({LinkEvent::Kind::kEnded, *ended});
}

void ClientMqttAsync::Disconnect() {
  std::shared_future<void> done;
  {
    const utils::MutexLock order(order_mutex_);
    done = PostEnd(state_.End());
  }
  done.wait();
}

void ClientMqttAsync::Close() {
  const utils::MutexLock order(order_mutex_);
  const auto ended = state_.Close();
  if (!closed_.valid()) closed_ = PostEnd(ended);
}

void ClientMqttAsync::AwaitClosed() {
  std::shared_future<void> closed;
  {
    const utils::MutexLock order(order_mutex_);
    closed = closed_;
  }
  if (closed.valid()) closed.wait();
}

void ClientMqttAsync::CloseConnection() {
  const utils::MutexLock lock(api_mutex_);
  CloseHandle();
}

void ClientMqttAsync::CloseHandle() {
  if (!handle_) return;
  if (!Registry::Instance().WaitIdle(context_, clock_, kCallbackLimit)) {
    VLOG_WARN(kTag, "{}: timed out waiting for active callbacks, forcing disconnect", Name());
  }
  if (accepted_) RequestDisconnect();
  DestroyHandleNow();
}

void ClientMqttAsync::RequestDisconnect() {
  {
    const utils::MutexLock lock(event_mutex_);
    disconnected_ = false;
  }
  MQTTAsync_disconnectOptions options = MQTTAsync_disconnectOptions_initializer5;
  options.timeout = kDisconnectLimitMs;
  options.onSuccess5 = AsyncCallbacks::Disconnected;
  options.onFailure5 = AsyncCallbacks::DisconnectFailed;
  options.context = context_;
  if (api_.Disconnect(handle_.get(), options) != MQTTASYNC_SUCCESS) return;
  utils::MutexLock lock(event_mutex_);
  const auto deadline = clock_.Now() + std::chrono::milliseconds(2 * kDisconnectLimitMs);
  clock_.WaitUntil(lock, event_wake_, deadline,
                   [this]() REQUIRES(event_mutex_) { return disconnected_; });
}

void ClientMqttAsync::DestroyHandleNow() {
  Registry::Instance().Retire(context_);
  context_ = nullptr;
  has_handle_ = false;
  handle_.reset();
  accepted_ = false;
}

CommsStatus ClientMqttAsync::SendRefusal(uint32_t attempt) const {
  if (!has_handle_) {
    VLOG_ERROR(kTag, "{}: client handle is null, cannot send", Name());
    return CommsStatus::kNotInitialized;
  }
  if (state_.Ending()) {
    VLOG_WARN(kTag, "{}: client is disconnecting, cannot send", Name());
    return CommsStatus::kNotConnected;
  }
  if (!IsLive(attempt)) {
    VLOG_WARN(kTag, "{}: not connected", Name());
    return CommsStatus::kNotConnected;
  }
  return CommsStatus::kOk;
}

CommsStatus ClientMqttAsync::Send(const std::string& topic, Qos qos, bool retain,
                                  std::string_view payload) {
  MQTTAsync_message message = MQTTAsync_message_initializer;
  message.qos = static_cast<int>(qos);
  message.retained = retain ? 1 : 0;
  return SendMessage(std::nullopt, topic, payload, message);
}

CommsStatus ClientMqttAsync::SendOn(uint32_t link, const std::string& topic, Qos qos,
                                    std::string_view payload) {
  MQTTAsync_message message = MQTTAsync_message_initializer;
  message.qos = static_cast<int>(qos);
  return SendMessage(link, topic, payload, message);
}

CommsStatus ClientMqttAsync::SendMessage(std::optional<uint32_t> link, const std::string& topic,
                                         std::string_view payload, MQTTAsync_message message) {
  if (payload.size() > kMaxMqttPayload || topic.size() > kMaxMqttTopic) {
    return CommsStatus::kInvalidArgument;
  }
  message.payload =
      const_cast<char*>(payload.data());  // the library copies it and never writes to it
  message.payloadlen = static_cast<int>(payload.size());
  const auto deadline = clock_.Now() + kRoomLimit;
  while (true) {
    if (link && !IsLive(*link)) return CommsStatus::kNotConnected;
    const uint32_t attempt = link.value_or(state_.Current());
    if (const CommsStatus refusal = SendRefusal(attempt); refusal != CommsStatus::kOk)
      return refusal;
    const uint64_t seen = window_.Left();
    const auto number = window_.Enter(topic.size() + payload.size(), message.qos > 0, deadline);
    if (!number) return SendFailed(topic, MQTTASYNC_MAX_BUFFERED_MESSAGES, attempt);
    const std::optional<int> code = TrySend(attempt, *number, topic, message);
    if (code == MQTTASYNC_SUCCESS) return CommsStatus::kOk;
    window_.Leave(*number);
    if (!code) continue;  // the link has changed while we waited
    if (link && !IsLive(*link)) return CommsStatus::kNotConnected;
    const auto now = clock_.Now();
    if (code != MQTTASYNC_MAX_BUFFERED_MESSAGES || now >= deadline)
      return SendFailed(topic, *code, attempt);
    window_.AwaitLeave(seen + 1, std::min(deadline, now + kRoomPoll));
  }
}

std::optional<int> ClientMqttAsync::TrySend(uint32_t attempt, uint32_t number,
                                            const std::string& topic,
                                            const MQTTAsync_message& message) {
  const utils::MutexLock lock(api_mutex_);
  if (!handle_ || attempt != handle_attempt_) return std::nullopt;
  MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
  options.onSuccess5 = AsyncCallbacks::Sent;
  options.onFailure5 = AsyncCallbacks::SendFailed;
  options.context = Registry::WithNumber(context_, number);
  return api_.Send(handle_.get(), topic, message, options);
}

CommsStatus ClientMqttAsync::SendFailed(const std::string& topic, int code, uint32_t attempt) {
  VLOG_ERROR(kTag, "{}: send failed on topic {}, rc: {}", Name(), utils::LogText(topic), code);
  if (code != MQTTASYNC_DISCONNECTED) return CommsStatus::kFailure;
  VLOG_WARN(kTag, "{}: send on topic {} detected disconnection, marking offline", Name(),
            utils::LogText(topic));
  (void)Drop(attempt, {.return_code = code});
  return CommsStatus::kNotConnected;
}

CommsStatus ClientMqttAsync::Subscribe(const std::string& filter) {
  const uint32_t attempt = state_.Current();
  return attempt == 0 ? CommsStatus::kOk : SubscribeOn(attempt, filter);
}

CommsStatus ClientMqttAsync::SubscribeOn(uint32_t attempt, const std::string& filter) {
  if (!state_.ExpectAcknowledgement(attempt)) return CommsStatus::kOk;
  MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
  options.subscribeOptions.retainHandling = kRetainedOnlyToNewSubscriptions;
  options.onSuccess5 = AsyncCallbacks::Subscribed;
  options.onFailure5 = AsyncCallbacks::SubscribeFailed;
  int code = MQTTASYNC_DISCONNECTED;
  {
    const utils::MutexLock lock(api_mutex_);
    options.context = Registry::WithNumber(context_, attempt);
    if (handle_ && handle_attempt_ == attempt)
      code = api_.Subscribe(handle_.get(), filter, static_cast<int>(subscribe_qos_), options);
  }
  if (code == MQTTASYNC_SUCCESS) return CommsStatus::kOk;
  VLOG_ERROR(kTag, "{}: failed to subscribe topic {}, rc: {}", Name(), filter, code);
  thread_.Post([this, attempt, code] {
    HandleRefusedSubscription(attempt, {.return_code = code, .text = "a subscription failed"});
  });
  return CommsStatus::kFailure;
}

void ClientMqttAsync::Unsubscribe(const std::string& filter) {
  const uint32_t attempt = state_.Current();
  if (!state_.IsLive(attempt)) return;
  MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
  const utils::MutexLock lock(api_mutex_);
  if (!handle_ || handle_attempt_ != attempt) return;
  const int code = api_.Unsubscribe(handle_.get(), filter, options);
  if (code != MQTTASYNC_SUCCESS)
    VLOG_WARN(kTag, "{}: failed to unsubscribe topic {}, rc: {}", Name(), filter, code);
}

}  // namespace varnel::comms

#include "comms/comms_manager.h"

#include <unistd.h>

#include <array>
#include <utility>

#include "comms/client_mqtt_async.h"
#include "utils/log.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "COMMS";
constexpr int kLocalKeepAliveS = 20;
constexpr int kLocalConnectTimeoutS = 5;
constexpr const char* kSystemNotification = "system/notification";

std::shared_ptr<ClientMqttBase> MakeAsyncClient(const std::string& name, Qos subscribe_qos) {
  return std::make_shared<ClientMqttAsync>(name, subscribe_qos);
}

}  // namespace

CommsManager::CommsManager() : CommsManager(MakeAsyncClient) {}

CommsManager::CommsManager(ClientFactory make_client) : make_client_(std::move(make_client)) {
  VLOG_INFO(kTag, "Communication manager singleton created");
}

CommsManager::~CommsManager() {
  // The clients' listeners use the server and the bridge, so the clients' connections end first.
  for (const auto& client : {LocalClient(), CloudClient()}) {
    if (client) client->Close();
  }
  for (const auto& client : {LocalClient(), CloudClient()}) {
    if (client) client->AwaitClosed();
  }
  bridge_.reset();
  notifiers_.clear();
  // The forwarders' threads call the server, whose workers forward answers.
  if (forwarders_) forwarders_->Stop();
  server_.reset();
  forwarders_.reset();
}

CommsManager& CommsManager::Instance() {
  static auto* manager =
      new CommsManager;  // never destroyed: threads that use it are not joined at the end
  return *manager;
}

void CommsManager::SetSerialNumberProvider(SerialNumberProvider provider) {
  const utils::MutexLock lock(state_mutex_);
  serial_number_provider_ = std::move(provider);
}

std::shared_ptr<ClientMqttBase> CommsManager::LocalClient() const {
  const utils::MutexLock lock(state_mutex_);
  return local_;
}

std::shared_ptr<ClientMqttBase> CommsManager::CloudClient() const {
  const utils::MutexLock lock(state_mutex_);
  return cloud_;
}

std::shared_ptr<JsonRpcServer> CommsManager::Server() const {
  const utils::MutexLock lock(state_mutex_);
  return life_ == Life::kRunning ? server_ : nullptr;
}

bool CommsManager::Stopped() const {
  const utils::MutexLock lock(state_mutex_);
  return life_ == Life::kStopped;
}

CommsStatus CommsManager::InitLocal() {
  if (Stopped()) return CommsStatus::kNotInitialized;
  if (!BeginLife()) {
    VLOG_WARN(kTag, "CommsManager already initialized");
    return CommsStatus::kOk;
  }
  try {
    return BuildLife();
  } catch (...) {  // no thread left, for one: it may be tried again
    const utils::MutexLock lock(state_mutex_);
    if (life_ == Life::kStarting) life_ = Life::kNew;
    throw;
  }
}

CommsStatus CommsManager::BuildLife() {
  SerialNumberProvider provider;
  {
    const utils::MutexLock lock(state_mutex_);
    provider = serial_number_provider_;
  }
  const std::string serial_number = provider ? provider() : std::string();
  LocalSide side;
  const CommsStatus built = BuildLocalSide(side);
  {
    const utils::MutexLock lock(notifiers_mutex_);
    notifiers_[kSystemNotification] = side.system_notifier;
  }
  {
    const utils::MutexLock lock(state_mutex_);
    local_ = side.client;
    server_ = side.server;
    if (life_ == Life::kStopped) side.client->Close();  // it came too late
    if (life_ == Life::kStarting) life_ = built == CommsStatus::kOk ? Life::kRunning : Life::kNew;
  }
  if (built == CommsStatus::kOk) VLOG_INFO(kTag, "CommsManager initialized (sn={})", serial_number);
  return built;
}

bool CommsManager::BeginLife() {
  const utils::MutexLock lock(state_mutex_);
  if (life_ != Life::kNew) return false;
  life_ = Life::kStarting;
  return true;
}

CommsStatus CommsManager::BuildLocalSide(LocalSide& side) {
  side.client = make_client_("Varnel Local", Qos::kAtMostOnce);
  side.client->SetConnectionLostCallback([this] { OnLocalLost(); });
  side.server = std::make_shared<JsonRpcServer>("local_srv");
  if (const CommsStatus bound = BindServer(*side.server, side.client); bound != CommsStatus::kOk)
    return bound;
  side.system_notifier = std::make_shared<JsonRpcClient>("system_notif");
  const CommsStatus bound = side.system_notifier->Bind(side.client, {kSystemNotification, ""});
  forwarders_ = std::make_unique<ForwarderPool>();
  bridge_ = std::make_unique<CloudBridge>(
      *forwarders_, *side.server,
      [this](const std::string& method) { return AllowedFromCloud(method); });
  return bound;
}

CommsStatus CommsManager::BindServer(JsonRpcServer& server,
                                     const std::shared_ptr<ClientMqttBase>& local) {
  const std::array<MqttChannel, 4> channels{{{"system/request", "system/response"},
                                             {"camera/request", "camera/response"},
                                             {"mqtt_agent/request", "mqtt_agent/response"},
                                             {"mqtt_agent/request/+", ""}}};
  for (const MqttChannel& channel : channels) {
    if (const CommsStatus bound = server.BindMqtt(local, channel); bound != CommsStatus::kOk)
      return bound;
  }
  return CommsStatus::kOk;
}

CommsStatus CommsManager::ConnectLocal(const std::string& host, const std::string& port,
                                       const std::string& identity) {
  const auto local = LocalClient();
  if (!local) {
    VLOG_ERROR(kTag, "ConnectLocal() called before InitLocal()");
    return CommsStatus::kNotInitialized;
  }
  VLOG_INFO(kTag, "Connecting to MQTT broker at {}:{}", host, port);
  MqttConnectSettings settings;
  settings.host = host;
  settings.port = port;
  settings.client_id = identity;
  settings.keep_alive_s = kLocalKeepAliveS;
  settings.connect_timeout_s = kLocalConnectTimeoutS;
  const CommsStatus status = local->Connect(settings);
  VLOG_INFO(kTag, "CommsManager connected");
  return status;
}

bool CommsManager::IsLocalConnected() const {
  const auto local = LocalClient();
  return local && local->IsConnected();
}

void CommsManager::ReconnectLocal() {
  const auto local = LocalClient();
  if (!local || local->IsConnected()) return;
  VLOG_INFO(kTag, "Reconnecting local MQTT...");
  (void)local->Reconnect();  // a failure comes back through the disconnect callback
}

void CommsManager::SetLocalDisconnectCallback(std::function<void()> callback) {
  if (!callback) return;
  const utils::MutexLock lock(callback_mutex_);
  local_disconnect_ = std::move(callback);
}

void CommsManager::OnLocalLost() {
  std::function<void()> callback;
  {
    const utils::MutexLock lock(callback_mutex_);
    callback = local_disconnect_;
  }
  if (callback) callback();
}

CommsStatus CommsManager::RegisterMethod(const std::string& method, uint32_t cloud_flag,
                                         MethodKind kind, RpcHandler handler, AfterAnswer after) {
  const auto server = Server();
  if (!server) {
    VLOG_ERROR(kTag, "CommsManager not initialized, cannot register method: {}", method);
    return CommsStatus::kNotInitialized;
  }
  const CommsStatus status =
      server->RegisterMethod(method, kind, std::move(handler), std::move(after));
  if (status != CommsStatus::kOk) return status;
  const utils::MutexLock lock(flags_mutex_);
  method_flags_[method] = cloud_flag;
  return CommsStatus::kOk;
}

bool CommsManager::AllowedFromCloud(const std::string& method) const {
  const utils::MutexLock lock(flags_mutex_);
  const auto flag = method_flags_.find(method);
  return flag != method_flags_.end() && flag->second != 0;
}

CommsStatus CommsManager::SendNotification(const std::string& topic, const std::string& method,
                                           Json params) {
  const auto notifier = NotifierOf(topic);
  return notifier ? notifier->Notify(method, std::move(params)) : CommsStatus::kNotInitialized;
}

CommsStatus CommsManager::PublishLocal(const std::string& topic, const Json& message) {
  const auto local = Server() ? LocalClient() : nullptr;
  if (!local) return CommsStatus::kNotInitialized;
  if (!local->IsConnected()) return CommsStatus::kNotConnected;
  return local->Send(topic, Qos::kAtMostOnce, false, Serialize(message));
}

JsonRpcClient::CallResult CommsManager::CallLocal(const std::string& request_topic,
                                                  const std::string& method, Json params,
                                                  std::chrono::milliseconds timeout) {
  const auto local = Server() ? LocalClient() : nullptr;
  if (!local) return {CommsStatus::kNotInitialized, {}};
  const utils::MutexLock one(call_mutex_);
  // It listens as long as it waits: the answers to others, of any length, come on the same topic.
  JsonRpcClient client(request_topic);
  if (const auto bound = client.Bind(local, {request_topic, ResponseTopicOf(request_topic)});
      bound != CommsStatus::kOk)
    return {bound, {}};
  // Other programs read the same answers: the number alone would be theirs too.
  const Json id = "varnel-" + std::to_string(::getpid()) + "-" + std::to_string(++calls_);
  return client.Call(method, std::move(params), id, timeout);
}

std::shared_ptr<JsonRpcClient> CommsManager::NotifierOf(const std::string& topic) {
  const auto local = Server() ? LocalClient() : nullptr;
  if (!local) return nullptr;
  const utils::MutexLock lock(notifiers_mutex_);
  std::shared_ptr<JsonRpcClient>& notifier = notifiers_[topic];
  if (!notifier) {
    notifier = std::make_shared<JsonRpcClient>(topic);
    (void)notifier->Bind(local, {topic, ""});  // it subscribes to nothing
  }
  return notifier;
}

void CommsManager::InitCloud(const std::string& name) {
  if (Stopped()) return;
  if (CloudClient()) {
    VLOG_WARN(kTag, "Cloud MQTT client '{}' exists already", CloudClient()->Name());
    return;
  }
  auto cloud = make_client_(name, Qos::kAtLeastOnce);
  cloud->SetLinkCallback([this](const LinkEvent& event) { OnCloudEvent(event); });
  {
    const utils::MutexLock lock(state_mutex_);
    if (cloud_ || life_ == Life::kStopped) return;
    cloud_ = std::move(cloud);
  }
  VLOG_INFO(kTag, "Cloud MQTT client '{}' created", name);
}

void CommsManager::SetCloudEventCallback(ClientMqttBase::LinkCallback callback) {
  if (!callback) return;
  const utils::MutexLock lock(callback_mutex_);
  cloud_event_ = std::move(callback);
}

void CommsManager::OnCloudEvent(const LinkEvent& event) {
  ClientMqttBase::LinkCallback callback;
  {
    const utils::MutexLock lock(callback_mutex_);
    callback = cloud_event_;
  }
  if (callback) callback(event);
}

CommsStatus CommsManager::ConnectCloud(const CloudEndpoint& endpoint) {
  const auto cloud = CloudClient();
  if (!cloud) {
    VLOG_ERROR(kTag, "ConnectCloud() called before InitCloud()");
    return CommsStatus::kNotInitialized;
  }
  VLOG_INFO(kTag, "Connecting cloud MQTT to {}:{}", endpoint.host, endpoint.port);
  return cloud->Connect({.host = endpoint.host,
                         .port = endpoint.port,
                         .client_id = endpoint.client_id,
                         .keep_alive_s = endpoint.keep_alive_s,
                         .client_certificate = endpoint.client_certificate,
                         .client_key = endpoint.client_key,
                         .root_ca = endpoint.root_ca,
                         .connect_timeout_s = endpoint.connect_timeout_s,
                         .needs_every_subscription = true});
}

void CommsManager::DisconnectCloud() {
  if (const auto cloud = CloudClient()) cloud->Disconnect();
}

LinkPhase CommsManager::CloudPhase() const {
  const auto cloud = CloudClient();
  return cloud ? cloud->Phase() : LinkPhase::kDown;
}

CommsStatus CommsManager::PublishCloud(const std::string& topic, const Json& message) {
  const auto cloud = CloudClient();
  if (!cloud) return CommsStatus::kNotInitialized;
  if (!cloud->IsConnected()) return CommsStatus::kNotConnected;
  return cloud->Send(topic, Qos::kAtLeastOnce, false, Serialize(message));
}

CommsStatus CommsManager::SetupCloudForwarding(const std::string& serial_number) {
  const auto local = Server() ? LocalClient() : nullptr;
  const auto cloud = CloudClient();
  if (!local || !cloud) {
    VLOG_ERROR(kTag, "SetupCloudForwarding: clients not initialized");
    return CommsStatus::kNotInitialized;
  }
  return bridge_->Setup(local, cloud, serial_number);
}

void CommsManager::SetCloudFilter(CloudFilter drops) {
  if (Server()) bridge_->SetFilter(std::move(drops));
}

void CommsManager::Stop() {
  std::shared_ptr<ClientMqttBase> local;
  std::shared_ptr<ClientMqttBase> cloud;
  {
    const utils::MutexLock lock(state_mutex_);
    life_ = Life::kStopped;
    local = local_;
    cloud = cloud_;
  }
  // Both are told before either is waited for: the cloud's goodbye does not depend on the local
  // broker.
  if (local) local->Close();
  if (cloud) cloud->Close();
  if (local) local->AwaitClosed();
  if (cloud) cloud->AwaitClosed();
  VLOG_INFO(kTag, "CommsManager stopped");
}

}  // namespace varnel::comms

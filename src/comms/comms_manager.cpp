#include "comms/comms_manager.h"

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
  // The clients' listeners use the server and the bridge, so the clients' threads end first.
  DisconnectAll();
  EndLife();
  cloud_.reset();
  local_.reset();
}

CommsManager& CommsManager::Instance() {
  static auto* manager =
      new CommsManager;  // never destroyed: threads that use it are not joined at the end
  return *manager;
}

void CommsManager::SetSerialNumberProvider(SerialNumberProvider provider) {
  std::lock_guard lock(state_mutex_);
  serial_number_provider_ = std::move(provider);
}

std::shared_ptr<ClientMqttBase> CommsManager::LocalClient() const {
  std::lock_guard lock(state_mutex_);
  return local_;
}

std::shared_ptr<ClientMqttBase> CommsManager::CloudClient() const {
  std::lock_guard lock(state_mutex_);
  return cloud_;
}

CommsStatus CommsManager::InitLocal() {
  std::unique_lock lock(state_mutex_);
  if (initialised_) {
    VLOG_WARN(kTag, "CommsManager already initialized");
    return CommsStatus::kOk;
  }
  // An earlier life ends here, and outside the lock: its handlers may wait for it.
  if (server_) {
    lock.unlock();
    EndLife();
    lock.lock();
  }
  serial_number_ = serial_number_provider_ ? serial_number_provider_() : std::string();
  local_ = make_client_("Varnel Local", Qos::kAtMostOnce);
  local_->SetConnectionLostCallback([this] { OnLocalLost(); });
  server_ = std::make_unique<JsonRpcServer>("local_srv");
  if (const CommsStatus bound = BindLocalServer(local_); bound != CommsStatus::kOk) return bound;
  auto system_notifier = std::make_shared<JsonRpcClient>("system_notif");
  if (const CommsStatus bound = system_notifier->Bind(local_, {kSystemNotification, ""});
      bound != CommsStatus::kOk) {
    return bound;
  }
  forwarders_ = std::make_unique<ForwarderPool>();
  bridge_ = std::make_unique<CloudBridge>(
      *forwarders_, *server_,
      [this](const std::string& method) { return AllowedFromCloud(method); });
  initialised_ = true;
  const std::string serial_number = serial_number_;
  lock.unlock();

  {
    std::lock_guard notifiers_lock(notifiers_mutex_);
    notifiers_[kSystemNotification] = std::move(system_notifier);
  }
  VLOG_INFO(kTag, "CommsManager initialized (sn={})", serial_number);
  return CommsStatus::kOk;
}

void CommsManager::EndLife() {
  bridge_.reset();
  {
    std::lock_guard lock(notifiers_mutex_);
    notifiers_.clear();
  }
  // The forwarders' threads call the server, whose workers forward answers.
  if (forwarders_) forwarders_->Stop();
  server_.reset();
  forwarders_.reset();
}

CommsStatus CommsManager::BindLocalServer(const std::shared_ptr<ClientMqttBase>& local) {
  const std::array<MqttChannel, 4> channels{{{"system/request", "system/response"},
                                             {"camera/request", "camera/response"},
                                             {"mqtt_agent/request", "mqtt_agent/response"},
                                             {"mqtt_agent/request/+", ""}}};
  for (const MqttChannel& channel : channels) {
    if (const CommsStatus bound = server_->BindMqtt(local, channel); bound != CommsStatus::kOk)
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
  std::lock_guard lock(callback_mutex_);
  local_disconnect_ = std::move(callback);
}

void CommsManager::OnLocalLost() {
  std::function<void()> callback;
  {
    std::lock_guard lock(callback_mutex_);
    callback = local_disconnect_;
  }
  if (callback) callback();
}

CommsStatus CommsManager::RegisterMethod(const std::string& method, uint32_t cloud_flag,
                                         MethodKind kind, RpcHandler handler) {
  {
    std::lock_guard lock(state_mutex_);
    if (!initialised_) {
      VLOG_ERROR(kTag, "CommsManager not initialized, cannot register method: {}", method);
      return CommsStatus::kNotInitialized;
    }
  }
  const CommsStatus status = server_->RegisterMethod(method, kind, std::move(handler));
  if (status != CommsStatus::kOk) return status;
  std::lock_guard lock(flags_mutex_);
  method_flags_[method] = cloud_flag;
  return CommsStatus::kOk;
}

bool CommsManager::AllowedFromCloud(const std::string& method) const {
  std::lock_guard lock(flags_mutex_);
  const auto flag = method_flags_.find(method);
  return flag != method_flags_.end() && flag->second != 0;
}

CommsStatus CommsManager::SendNotification(const std::string& topic, const std::string& method,
                                           Json params) {
  const auto notifier = Notifier(topic);
  return notifier ? notifier->Notify(method, std::move(params)) : CommsStatus::kNotInitialized;
}

std::shared_ptr<JsonRpcClient> CommsManager::Notifier(const std::string& topic) {
  std::shared_ptr<ClientMqttBase> local;
  {
    std::lock_guard lock(state_mutex_);
    if (!initialised_) return nullptr;
    local = local_;
  }
  std::lock_guard lock(notifiers_mutex_);
  std::shared_ptr<JsonRpcClient>& notifier = notifiers_[topic];
  if (!notifier) {
    notifier = std::make_shared<JsonRpcClient>(topic);
    (void)notifier->Bind(local, {topic, ""});  // cannot fail: a new client and nothing to subscribe
  }
  return notifier;
}

void CommsManager::InitCloud(const std::string& name) {
  const auto previous = CloudClient();
  if (previous) previous->Disconnect();
  auto cloud = make_client_(name, Qos::kAtLeastOnce);
  {
    std::lock_guard lock(state_mutex_);
    cloud_ = std::move(cloud);
  }
  VLOG_INFO(kTag, "Cloud MQTT client '{}' created", name);
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
                         .user_name = {},
                         .password = {},
                         .connect_timeout_s = endpoint.connect_timeout_s});
}

bool CommsManager::IsCloudConnected() const {
  const auto cloud = CloudClient();
  return cloud && cloud->IsConnected();
}

CommsStatus CommsManager::SetupCloudForwarding(const std::string& serial_number) {
  const auto local = LocalClient();
  const auto cloud = CloudClient();
  if (!local || !cloud || !bridge_) {
    VLOG_ERROR(kTag, "SetupCloudForwarding: clients not initialized");
    return CommsStatus::kNotInitialized;
  }
  return bridge_->Setup(local, cloud, serial_number);
}

void CommsManager::DisconnectAll() {
  for (const auto& client : {LocalClient(), CloudClient()}) {
    if (client) client->Disconnect();
  }
}

void CommsManager::Stop() {
  DisconnectAll();
  {
    std::lock_guard lock(state_mutex_);
    initialised_ = false;
  }
  VLOG_INFO(kTag, "CommsManager stopped");
}

}  // namespace varnel::comms

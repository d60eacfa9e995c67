#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "comms/client_mqtt_base.h"
#include "comms/cloud_bridge.h"
#include "comms/forwarder_pool.h"
#include "comms/json_rpc_client.h"
#include "comms/json_rpc_server.h"

namespace varnel::comms {

/// Everything a cloud connection needs; a secure link when certificate paths are given.
struct CloudEndpoint {
  std::string host{};
  std::string port{};
  std::string client_id{};
  int keep_alive_s = 30;
  std::string client_certificate{};
  std::string client_key{};
  std::string root_ca{};
  int connect_timeout_s = 20;
};

/// Where the services meet the brokers: the local link with the one method table, the notification
/// senders, the cloud link and the routes between them. Thread-safe, but InitLocal() comes before
/// everything else.
class CommsManager {
 public:
  using SerialNumberProvider = std::function<std::string()>;
  using ClientFactory =
      std::function<std::shared_ptr<ClientMqttBase>(const std::string& name, Qos subscribe_qos)>;

  /// Asynchronous clients unless a test asks for others.
  CommsManager();
  explicit CommsManager(ClientFactory make_client);
  ~CommsManager();
  CommsManager(const CommsManager&) = delete;
  CommsManager& operator=(const CommsManager&) = delete;

  /// The process's own manager, created on first use and never destroyed.
  static CommsManager& Instance();

  /// Where InitLocal() reads the device's serial number.
  void SetSerialNumberProvider(SerialNumberProvider provider);

  CommsStatus InitLocal();
  /// Starts connecting; a failure, now or later, reaches the local-disconnect callback.
  CommsStatus ConnectLocal(const std::string& host, const std::string& port,
                           const std::string& identity);
  bool IsLocalConnected() const;
  void ReconnectLocal();
  /// Called on a library thread when the local link is lost or could not be made; must not block.
  /// An empty function is ignored.
  void SetLocalDisconnectCallback(std::function<void()> callback);

  /// Registers a method with the local server. Flag 0 keeps it from the cloud.
  CommsStatus RegisterMethod(const std::string& method, uint32_t cloud_flag, MethodKind kind,
                             RpcHandler handler);
  /// Sends a notification on a topic of the local broker.
  CommsStatus SendNotification(const std::string& topic, const std::string& method, Json params);

  void InitCloud(const std::string& name);
  CommsStatus ConnectCloud(const CloudEndpoint& endpoint);
  bool IsCloudConnected() const;
  CommsStatus SetupCloudForwarding(const std::string& serial_number);

  void Stop();

 private:
  std::shared_ptr<ClientMqttBase> LocalClient() const;
  std::shared_ptr<ClientMqttBase> CloudClient() const;
  void DisconnectAll();
  /// Takes apart what InitLocal() built, but for the clients.
  void EndLife();
  CommsStatus BindLocalServer(const std::shared_ptr<ClientMqttBase>& local);
  std::shared_ptr<JsonRpcClient> Notifier(const std::string& topic);
  void OnLocalLost();
  bool AllowedFromCloud(const std::string& method) const;

  const ClientFactory make_client_;

  mutable std::mutex state_mutex_;  // guards the next group; never held while another mutex here is
  bool initialised_ = false;
  SerialNumberProvider serial_number_provider_;
  std::string serial_number_;
  std::shared_ptr<ClientMqttBase> local_;
  std::shared_ptr<ClientMqttBase> cloud_;

  mutable std::mutex flags_mutex_;
  std::map<std::string, uint32_t, std::less<>> method_flags_;  // guarded by flags_mutex_

  std::mutex notifiers_mutex_;
  std::unordered_map<std::string, std::shared_ptr<JsonRpcClient>>
      notifiers_;  // guarded by notifiers_mutex_

  std::mutex callback_mutex_;
  std::function<void()> local_disconnect_;  // guarded by callback_mutex_

  // Made by InitLocal(); the clients' listeners use them, so they end after Stop() only.
  std::unique_ptr<JsonRpcServer> server_;
  std::unique_ptr<ForwarderPool> forwarders_;
  std::unique_ptr<CloudBridge> bridge_;
};

}  // namespace varnel::comms

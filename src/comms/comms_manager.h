#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "comms/client_mqtt_base.h"
#include "comms/cloud_bridge.h"
#include "comms/forwarder_pool.h"
#include "comms/json_rpc_client.h"
#include "comms/json_rpc_server.h"
#include "utils/mutex.h"

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
/// everything else, and after Stop() nothing connects or registers any more.
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
  /// Called on a thread of the link when it is lost or could not be made; must not block.
  /// An empty function is ignored.
  void SetLocalDisconnectCallback(std::function<void()> callback);

  /// Registers a method with the local server. Flag 0 keeps it from the cloud.
  CommsStatus RegisterMethod(const std::string& method, uint32_t cloud_flag, MethodKind kind,
                             RpcHandler handler, AfterAnswer after = nullptr);
  /// Sends a notification on a topic of the local broker.
  CommsStatus SendNotification(const std::string& topic, const std::string& method, Json params);

  /// Publishes on a topic of the local broker, at QoS 0.
  CommsStatus PublishLocal(const std::string& topic, const Json& message);
  /// Asks a program on the local broker and waits for its answer, on the request topic with
  /// "request" replaced by "response". kTimeout without an answer in time. One call at a time; the
  /// time counts when it is its turn. Not from a listener of the local link: it could not be
  /// delivered there.
  JsonRpcClient::CallResult CallLocal(const std::string& request_topic, const std::string& method,
                                      Json params, std::chrono::milliseconds timeout);

  /// Makes the cloud client, once: it lives as long as the process, and with it its routes.
  void InitCloud(const std::string& name);
  /// Called once for each attempt of the cloud link and once for the end of each link that was up,
  /// on a thread of the client's; must not block or call the manager. An empty function is ignored.
  void SetCloudEventCallback(ClientMqttBase::LinkCallback callback);
  /// Starts connecting and returns; the outcome is an event. A link that is up is replaced. kBusy
  /// while an attempt runs.
  CommsStatus ConnectCloud(const CloudEndpoint& endpoint);
  /// Ends the cloud link or the attempt at one, which is an event too. Returns within a few
  /// seconds.
  void DisconnectCloud();
  LinkPhase CloudPhase() const;
  bool IsCloudConnected() const { return CloudPhase() == LinkPhase::kUp; }
  /// Publishes on a topic of the cloud broker, at QoS 1.
  CommsStatus PublishCloud(const std::string& topic, const Json& message);
  /// Decides which cloud requests do not run. Before SetupCloudForwarding().
  void SetCloudFilter(CloudFilter drops);
  CommsStatus SetupCloudForwarding(const std::string& serial_number);

  /// Ends both links for good; returns when their connections are closed, within a few seconds.
  void Stop();

 private:
  enum class Life { kNew, kStarting, kRunning, kStopped };

  /// Made by InitLocal(), in this order.
  struct LocalSide {
    std::shared_ptr<ClientMqttBase> client;
    std::shared_ptr<JsonRpcServer> server;
    std::shared_ptr<JsonRpcClient> system_notifier;
  };

  bool BeginLife();
  CommsStatus BuildLife();
  CommsStatus BuildLocalSide(LocalSide& side);
  std::shared_ptr<ClientMqttBase> LocalClient() const;
  std::shared_ptr<ClientMqttBase> CloudClient() const;
  std::shared_ptr<JsonRpcServer> Server() const;
  bool Stopped() const;
  static CommsStatus BindServer(JsonRpcServer& server,
                                const std::shared_ptr<ClientMqttBase>& local);
  std::shared_ptr<JsonRpcClient> NotifierOf(const std::string& topic);
  void OnLocalLost();
  void OnCloudEvent(const LinkEvent& event);
  bool AllowedFromCloud(const std::string& method) const;

  const ClientFactory make_client_;

  mutable utils::Mutex state_mutex_;  // never held while another mutex here is
  Life life_ GUARDED_BY(state_mutex_) = Life::kNew;
  SerialNumberProvider serial_number_provider_ GUARDED_BY(state_mutex_);
  std::shared_ptr<ClientMqttBase> local_ GUARDED_BY(state_mutex_);
  std::shared_ptr<ClientMqttBase> cloud_ GUARDED_BY(state_mutex_);
  std::shared_ptr<JsonRpcServer> server_ GUARDED_BY(state_mutex_);

  mutable utils::Mutex flags_mutex_;
  std::map<std::string, uint32_t, std::less<>> method_flags_ GUARDED_BY(flags_mutex_);

  utils::Mutex notifiers_mutex_;
  std::map<std::string, std::shared_ptr<JsonRpcClient>> notifiers_
      GUARDED_BY(notifiers_mutex_);  // by topic

  utils::Mutex callback_mutex_;
  std::function<void()> local_disconnect_ GUARDED_BY(callback_mutex_);
  ClientMqttBase::LinkCallback cloud_event_ GUARDED_BY(callback_mutex_);

  utils::Mutex call_mutex_;  // held over a call: its listener is the topic's only one
  uint64_t calls_ GUARDED_BY(call_mutex_) = 0;

  // Made by InitLocal(); the clients' listeners use them, so they end after the links only.
  std::unique_ptr<ForwarderPool> forwarders_;
  std::unique_ptr<CloudBridge> bridge_;
};

}  // namespace varnel::comms

#pragma once

#include <memory>
#include <optional>
#include <string>

#include "comms/client_mqtt_base.h"
#include "comms/cloud_outage.h"
#include "comms/cloud_requests.h"
#include "comms/forwarder_pool.h"
#include "comms/json_rpc_server.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// The routes between the cloud broker and the local side: cloud requests run local methods and are
/// answered to the cloud; local responses, status and notifications of this device are forwarded
/// unchanged. Thread-safe.
class CloudBridge {
 public:
  /// Both references must outlive every client that Setup() was given.
  CloudBridge(ForwarderPool& forwarders, JsonRpcServer& server, CloudGate gate);
  /// Takes the routes away and waits for listeners that run.
  ~CloudBridge();
  CloudBridge(const CloudBridge&) = delete;
  CloudBridge& operator=(const CloudBridge&) = delete;

  /// Wires the routes of one device between two clients, which are the same in every call; another
  /// call replaces the routes. kInvalidArgument for a serial number that cannot be one level of a
  /// topic, stands for none, or is the name of a service.
  CommsStatus Setup(const std::shared_ptr<ClientMqttBase>& local,
                    const std::shared_ptr<ClientMqttBase>& cloud, const std::string& serial_number);

  /// Which cloud requests do not run, those that wait included. Before Setup().
  void SetFilter(CloudFilter drops);

 private:
  /// One queue per forwarded stream.
  struct Queues {
    ForwarderPool::QueueId requests;
    ForwarderPool::QueueId responses;
    ForwarderPool::QueueId events;
  };

  Queues PrepareQueues() REQUIRES(mutex_);
  void RemoveRoutes() REQUIRES(mutex_);
  CommsStatus RouteRequests(const Queues& queues) REQUIRES(mutex_);
  CommsStatus RouteConfig() REQUIRES(mutex_);
  CommsStatus RouteToCloud(ForwarderPool::QueueId queue, const std::string& stream)
      REQUIRES(mutex_);

  ForwarderPool& forwarders_;
  JsonRpcServer& server_;
  const CloudGate gate_;
  const std::shared_ptr<CloudOutage> outage_ = std::make_shared<CloudOutage>();

  utils::Mutex mutex_;
  CloudFilter drops_ GUARDED_BY(mutex_);
  std::optional<Queues> queues_ GUARDED_BY(mutex_);
  std::shared_ptr<ClientMqttBase> local_
      GUARDED_BY(mutex_);  // the clients and the serial number of the routes in force
  std::shared_ptr<ClientMqttBase> cloud_ GUARDED_BY(mutex_);
  std::string serial_number_ GUARDED_BY(mutex_);
};

}  // namespace varnel::comms

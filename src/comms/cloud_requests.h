#pragma once

#include <functional>
#include <memory>
#include <string>

#include "comms/client_mqtt_base.h"
#include "comms/forwarder_pool.h"
#include "comms/json_rpc_server.h"

namespace varnel::comms {

/// Tells whether the cloud may call a registered method.
using CloudGate = std::function<bool(const std::string& method)>;

/// Tells whether cloud requests are dropped now. Any thread; must not block.
using CloudFilter = std::function<bool()>;

/// Where the answers to cloud requests go: a cloud link that is slow must not hold the workers that
/// run the methods.
struct CloudAnswers {
  ForwarderPool& forwarders;  ///< outlives the requests
  ForwarderPool::QueueId queue;
  std::string topic;
};

/// Runs requests of the cloud on the local server and hands their answers on, each over the link
/// that its request came over. Made by make_shared: what runs holds a share. Thread-safe.
class CloudRequests : public ForwardDestination,
                      public std::enable_shared_from_this<CloudRequests> {
 public:
  /// The server must outlive this.
  /// @param drops asked before a request waits for its turn, and before it runs; null: none
  CloudRequests(JsonRpcServer& server, CloudGate gate, std::shared_ptr<ClientMqttBase> cloud,
                CloudFilter drops, CloudAnswers answers);

  CommsStatus Deliver(const MqttMessage& message) override;

 private:
  /// One request on its way: which link it came over, and how a person finds it in the log.
  struct Request {
    std::string method;
    std::string id;
    uint32_t link;
  };
  class Answer;

  void Run(JsonRpcEnvelope request, uint32_t link);
  bool MayRun(const Request& request) const;
  void Send(const Request& request, RpcAnswer answer) const;

  JsonRpcServer& server_;
  const CloudGate gate_;
  const std::shared_ptr<ClientMqttBase> cloud_;
  const CloudFilter drops_;
  const CloudAnswers answers_;
};

}  // namespace varnel::comms

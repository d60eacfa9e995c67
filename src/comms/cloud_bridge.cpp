#include "comms/cloud_bridge.h"

#include <algorithm>
#include <array>
#include <utility>

#include "comms/log_payload.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "COMMS";
constexpr size_t kLoggedBytes = 160;

/// Publishes a local message on the cloud broker, topic and payload unchanged.
class CloudPublisher : public ForwardDestination {
 public:
  CloudPublisher(std::shared_ptr<ClientMqttBase> cloud, std::shared_ptr<CloudOutage> outage)
      : cloud_(std::move(cloud)), outage_(std::move(outage)) {}
  CommsStatus Deliver(const MqttMessage& message) override {
    if (!cloud_->IsConnected()) {
      outage_->Drop();
      return CommsStatus::kOk;
    }
    outage_->Over();
    return cloud_->Send(message.topic, Qos::kAtLeastOnce, false, message.payload);
  }

 private:
  const std::shared_ptr<ClientMqttBase> cloud_;
  const std::shared_ptr<CloudOutage> outage_;
};

/// One request on its way: which link it came over, and how a person finds it in the log.
struct CloudRequest {
  std::string method;
  std::string id;
  uint32_t link;
};

/// Publishes the answer to one cloud request, over the link that the request came over.
class CloudAnswer : public ForwardDestination {
 public:
  CloudAnswer(std::shared_ptr<ClientMqttBase> cloud, CloudRequest request, bool is_error)
      : cloud_(std::move(cloud)), request_(std::move(request)), is_error_(is_error) {}

  CommsStatus Deliver(const MqttMessage& answer) override {
    const CommsStatus status =
        cloud_->SendOn(request_.link, answer.topic, Qos::kAtLeastOnce, answer.payload);
    if (status == CommsStatus::kNotConnected && !cloud_->IsLive(request_.link)) {
      VLOG_WARN(kTag, "cloud link has ended, no answer to {} (id={})", request_.method,
                request_.id);
      return CommsStatus::kOk;
    }
    if (status != CommsStatus::kOk) {
      VLOG_ERROR(kTag, "cloud request dispatch failed: {}",
                 "no answer could be sent to " + request_.method);
    } else if (is_error_) {
      VLOG_INFO(kTag, "cloud req {} (id={}) → error response sent", request_.method, request_.id);
    } else {
      VLOG_INFO(kTag, "cloud req {} (id={}) → response sent, len={}", request_.method, request_.id,
                answer.payload.size());
    }
    return status;
  }

 private:
  const std::shared_ptr<ClientMqttBase> cloud_;
  const CloudRequest request_;
  const bool is_error_;
};

/// Runs cloud requests on the local server and hands their answers on: a cloud link that is slow
/// must not hold the workers that run the methods.
class CloudRequestRunner : public ForwardDestination {
 public:
  using SendAnswer = std::function<void(const CloudRequest& request, RpcAnswer answer)>;
  using MayRun = std::function<bool(const CloudRequest& request)>;

  CloudRequestRunner(JsonRpcServer& server, CloudBridge::CloudGate gate, MayRun may_run,
                     SendAnswer send_answer)
      : server_(server),
        gate_(std::move(gate)),
        may_run_(std::move(may_run)),
        send_answer_(std::move(send_answer)) {}

  CommsStatus Deliver(const MqttMessage& message) override {
    auto read = JsonRpcEnvelope::Read(message.payload);
    if (const auto* failure = std::get_if<ParseFailure>(&read)) {
      VLOG_ERROR(kTag, "cloud request dispatch failed: {}",
                 failure->text.empty() ? "not a JSON-RPC request" : utils::LogText(failure->text));
      return CommsStatus::kOk;
    }
    Run(std::move(std::get<JsonRpcEnvelope>(read)), message.link);
    return CommsStatus::kOk;
  }

 private:
  void Run(JsonRpcEnvelope request, uint32_t link) {
    const bool has_method = request.Method().has_value();
    const std::string method = request.Method().value_or("");
    const CloudRequest about{utils::LogText(method),
                             request.HasId() ? utils::LogText(request.Id()) : "none", link};
    if (!may_run_(about)) return;
    const JsonRpcServer::Reply reply = [about, send = send_answer_](RpcAnswer answer) {
      send(about, std::move(answer));
    };
    if (has_method && gate_(method)) {
      server_.InvokeMethod(method, std::move(request), reply,
                           [about, may_run = may_run_] { return may_run(about); });
      return;
    }
    VLOG_ERROR(kTag, "cloud request dispatch failed: {}",
               has_method ? "method not found: " + about.method : "no method");
    if (!request.HasId()) return;
    const Json error =
        has_method ? MethodNotFound(method) : MakeError(kInvalidRequest, "Invalid Request");
    reply({request.Id(), true, MakeResponse(request.Id(), error)});
  }

  JsonRpcServer& server_;
  const CloudBridge::CloudGate gate_;
  const MayRun may_run_;
  const SendAnswer send_answer_;
};

std::string RequestTopic(const std::string& serial_number) {
  return serial_number + "/request";
}

std::string ConfigTopic(const std::string& serial_number) {
  return "system/config/" + serial_number + "/request";
}

constexpr std::array kStreams{"response", "status", "notification"};

std::string StreamTopic(const std::string& serial_number, const std::string& stream) {
  return serial_number + "/" + stream;
}

void LogForwarded(const std::string& stream, const std::string& payload) {
  if (stream == "response") {
    VLOG_INFO(kTag, "local → cloud response: {:.160}", LogPayload(payload, kLoggedBytes));
  } else if (stream == "notification") {
    VLOG_INFO(kTag, "local → cloud notification: {:.160}", LogPayload(payload, kLoggedBytes));
  }
}

/// What a device without an identity calls itself, and the first levels of the local topics: their
/// traffic is not a device's.
constexpr std::array kNoSerialNumbers{"--", "system", "camera", "mqtt_agent", "moonraker"};

bool CanBeSerialNumber(const std::string& text) {
  return !text.empty() && text.find_first_of("/+#$\0", 0, 5) == std::string::npos &&
         std::find(kNoSerialNumbers.begin(), kNoSerialNumbers.end(), text) ==
             kNoSerialNumbers.end();
}

}  // namespace

CloudBridge::CloudBridge(ForwarderPool& forwarders, JsonRpcServer& server, CloudGate gate)
    : forwarders_(forwarders), server_(server), gate_(std::move(gate)) {}

CloudBridge::~CloudBridge() {
  RemoveRoutes();
}

CommsStatus CloudBridge::Setup(const std::shared_ptr<ClientMqttBase>& local,
                               const std::shared_ptr<ClientMqttBase>& cloud,
                               const std::string& serial_number) {
  if (!CanBeSerialNumber(serial_number)) {
    VLOG_ERROR(kTag, "SetupCloudForwarding: invalid serial number");
    return CommsStatus::kInvalidArgument;
  }
  std::lock_guard lock(mutex_);
  const bool same_routes = local == local_ && cloud == cloud_ && serial_number == serial_number_;
  if (!same_routes) RemoveRoutes();
  local_ = local;
  cloud_ = cloud;
  serial_number_ = serial_number;
  const Queues queues = PrepareQueues();
  bool ok = RouteRequests(queues) == CommsStatus::kOk;
  ok &= RouteConfig() == CommsStatus::kOk;
  for (const std::string stream : kStreams) {
    const auto queue = stream == "response" ? queues.responses : queues.events;
    ok &= RouteToCloud(queue, stream) == CommsStatus::kOk;
  }
  if (!ok) return CommsStatus::kFailure;
  VLOG_INFO(kTag, "Cloud forwarding setup complete (sn={})", serial_number);
  return CommsStatus::kOk;
}

CloudBridge::Queues CloudBridge::PrepareQueues() {
  if (!queues_) {
    queues_ = Queues{forwarders_.CreateQueue("requests"), forwarders_.CreateQueue("responses"),
                     forwarders_.CreateQueue("events")};
  }
  return *queues_;
}

void CloudBridge::RemoveRoutes() {
  if (cloud_) {
    cloud_->RemoveListener(RequestTopic(serial_number_));
    cloud_->RemoveListener(ConfigTopic(serial_number_));
  }
  if (!local_) return;
  for (const char* stream : kStreams) local_->RemoveListener(StreamTopic(serial_number_, stream));
}

CommsStatus CloudBridge::RouteRequests(const Queues& queues) {
  const auto send_answer = [&forwarders = forwarders_, queue = queues.responses, cloud = cloud_,
                            topic = StreamTopic(serial_number_, "response")](
                               const CloudRequest& request, RpcAnswer answer) {
    auto destination = std::make_shared<CloudAnswer>(cloud, request, answer.is_error);
    auto message = std::make_shared<MqttMessage>();
    message->topic = topic;
    message->payload = std::move(answer.payload);
    forwarders.Forward(queue, std::move(message), std::move(destination));
  };
  const auto may_run = [cloud = cloud_, dropping = dropping_](const CloudRequest& request) {
    if (*dropping) {
      VLOG_WARN(kTag, "drop cloud request, logging out id: {}", request.id);
    } else if (!cloud->IsLive(request.link)) {
      VLOG_WARN(kTag, "drop cloud request, its link has ended id: {}", request.id);
    } else {
      return true;
    }
    return false;
  };
  auto runner = std::make_shared<CloudRequestRunner>(server_, gate_, may_run, send_answer);
  return cloud_->AddListener(
      RequestTopic(serial_number_),
      [this, queue = queues.requests, runner](const std::shared_ptr<MqttMessage>& message) {
        if (JsonRpcServer::IsStale(*message)) return;
        VLOG_INFO(kTag, "cloud req → local: {:.160}", LogPayload(message->payload, kLoggedBytes));
        forwarders_.Forward(queue, message, runner);
      });
}

CommsStatus CloudBridge::RouteConfig() {
  return cloud_->AddListener(
      ConfigTopic(serial_number_), [](const std::shared_ptr<MqttMessage>& message) {
        VLOG_INFO(kTag, "cloud config req: {}", LogPayload(message->payload, kLoggedBytes));
      });
}

CommsStatus CloudBridge::RouteToCloud(ForwarderPool::QueueId queue, const std::string& stream) {
  auto publisher = std::make_shared<CloudPublisher>(cloud_, outage_);
  return local_->AddListener(
      StreamTopic(serial_number_, stream),
      [this, queue, stream, publisher](const std::shared_ptr<MqttMessage>& message) {
        LogForwarded(stream, message->payload);
        forwarders_.Forward(queue, message, publisher);
      });
}

}  // namespace varnel::comms

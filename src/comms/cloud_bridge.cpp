#include "comms/cloud_bridge.h"

#include <algorithm>
#include <array>
#include <utility>

#include "comms/log_payload.h"
#include "utils/log.h"

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
  const utils::MutexLock lock(mutex_);
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

void CloudBridge::SetFilter(CloudFilter drops) {
  const utils::MutexLock lock(mutex_);
  drops_ = std::move(drops);
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
  auto runner = std::make_shared<CloudRequests>(
      server_, gate_, cloud_, drops_,
      CloudAnswers{forwarders_, queues.responses, StreamTopic(serial_number_, "response")});
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

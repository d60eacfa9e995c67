#include "service/agent/comms_link.h"

#include <stdexcept>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AGENT";
constexpr const char* kCloudClient = "Varnel Cloud";
constexpr int kKeepAliveS = 30;
constexpr int kConnectTimeoutS = 20;
/// MQTT 5.0, section 3.14.2.1: another client has connected under the same name.
constexpr int kSessionTakenOver = 0x8E;

using Kind = comms::LinkEvent::Kind;

void Tell(const AgentComms::LinkCallback& callback, const comms::LinkEvent& event) {
  if (event.kind == Kind::kEnded) return;  // by ourselves
  if (event.kind != Kind::kConnected) {
    VLOG_WARN(kTag, "Cloud MQTT {}: {} (code {}, reason {})",
              event.kind == Kind::kLost ? "link lost" : "connection failed",
              utils::LogText(event.text), event.return_code, event.reason_code);
  }
  callback(event.kind == Kind::kConnected           ? CloudLinkEvent::kConnected
           : event.reason_code == kSessionTakenOver ? CloudLinkEvent::kTakenOver
                                                    : CloudLinkEvent::kDisconnected);
}

}  // namespace

void CommsLink::ConnectCloud(const nlohmann::json& auth_info) {
  const auto text = [&](const char* name) { return auth_info.at(name).get<std::string>(); };
  const comms::CommsStatus status = comms_.ConnectCloud({.host = text("endpoint"),
                                                         .port = text("port"),
                                                         .client_id = text("clientid"),
                                                         .keep_alive_s = kKeepAliveS,
                                                         .client_certificate = text("client_cert"),
                                                         .client_key = text("client_key"),
                                                         .root_ca = text("root_ca"),
                                                         .connect_timeout_s = kConnectTimeoutS});
  if (status == comms::CommsStatus::kOk) return;
  throw std::runtime_error("the client refuses to connect, status " +
                           std::to_string(comms::Code(status)));
}

void CommsLink::PublishLocal(const std::string& topic, const nlohmann::json& message) {
  const comms::CommsStatus status = comms_.PublishLocal(topic, message);
  if (status != comms::CommsStatus::kOk)
    VLOG_DEBUG(kTag, "{} is not told: status {}", topic, comms::Code(status));
}

void CommsLink::PublishCloud(const std::string& topic, const nlohmann::json& message) {
  const comms::CommsStatus status = comms_.PublishCloud(topic, message);
  if (status != comms::CommsStatus::kOk)
    VLOG_WARN(kTag, "the cloud is not told on {}: status {}", topic, comms::Code(status));
}

void CommsLink::SetupForwarders(const std::string& serial_number, LinkCallback callback) {
  comms_.InitCloud(kCloudClient);
  comms_.SetCloudEventCallback(
      [callback = std::move(callback)](const comms::LinkEvent& event) { Tell(callback, event); });
  comms_.SetCloudFilter([this] { return filter_.Drops(); });
  if (const auto status = comms_.SetupCloudForwarding(serial_number);
      status != comms::CommsStatus::kOk) {
    VLOG_ERROR(kTag, "the cloud routes of {} are not there: status {}",
               utils::LogText(serial_number), comms::Code(status));
  }
}

}  // namespace varnel::service

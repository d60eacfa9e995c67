#include "comms/cloud_requests.h"

#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "COMMS";

}  // namespace

/// Publishes the answer to one request.
class CloudRequests::Answer : public ForwardDestination {
 public:
  Answer(std::shared_ptr<ClientMqttBase> cloud, Request request, bool is_error)
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
  const Request request_;
  const bool is_error_;
};

CloudRequests::CloudRequests(JsonRpcServer& server, CloudGate gate,
                             std::shared_ptr<ClientMqttBase> cloud, CloudFilter drops,
                             CloudAnswers answers)
    : server_(server),
      gate_(std::move(gate)),
      cloud_(std::move(cloud)),
      drops_(std::move(drops)),
      answers_(std::move(answers)) {}

CommsStatus CloudRequests::Deliver(const MqttMessage& message) {
  auto read = JsonRpcEnvelope::Read(message.payload);
  if (const auto* failure = std::get_if<ParseFailure>(&read)) {
    VLOG_ERROR(kTag, "cloud request dispatch failed: {}",
               failure->text.empty() ? "not a JSON-RPC request" : utils::LogText(failure->text));
    return CommsStatus::kOk;
  }
  Run(std::move(std::get<JsonRpcEnvelope>(read)), message.link);
  return CommsStatus::kOk;
}

void CloudRequests::Run(JsonRpcEnvelope request, uint32_t link) {
  const bool has_method = request.Method().has_value();
  const std::string method = request.Method().value_or("");
  const Request about{utils::LogText(method),
                      request.HasId() ? utils::LogText(request.Id()) : "none", link};
  if (!MayRun(about)) return;
  const JsonRpcServer::Reply reply = [self = shared_from_this(), about](RpcAnswer answer) {
    self->Send(about, std::move(answer));
  };
  if (has_method && gate_(method)) {
    server_.InvokeMethod(method, std::move(request), reply,
                         [self = shared_from_this(), about] { return self->MayRun(about); });
    return;
  }
  VLOG_ERROR(kTag, "cloud request dispatch failed: {}",
             has_method ? "method not found: " + about.method : "no method");
  if (!request.HasId()) return;
  const Json error =
      has_method ? MethodNotFound(method) : MakeError(RpcError::kInvalidRequest, "Invalid Request");
  reply({request.Id(), true, MakeResponse(request.Id(), error)});
}

bool CloudRequests::MayRun(const Request& request) const {
  if (drops_ && drops_()) {
    VLOG_WARN(kTag, "drop cloud request, logging out id: {}", request.id);
  } else if (!cloud_->IsLive(request.link)) {
    VLOG_WARN(kTag, "drop cloud request, its link has ended id: {}", request.id);
  } else {
    return true;
  }
  return false;
}

void CloudRequests::Send(const Request& request, RpcAnswer answer) const {
  auto message = std::make_shared<MqttMessage>();
  message->topic = answers_.topic;
  message->payload = std::move(answer.payload);
  answers_.forwarders.Forward(answers_.queue, std::move(message),
                              std::make_shared<Answer>(cloud_, request, answer.is_error));
}

}  // namespace varnel::comms

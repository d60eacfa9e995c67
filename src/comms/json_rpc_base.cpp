#include "comms/json_rpc_base.h"

#include <utility>

#include "comms/log_payload.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::comms {
namespace {

constexpr size_t kLoggedBytes = 160;

}  // namespace

std::string ResponseTopicOf(const std::string& request_topic) {
  constexpr std::string_view kRequest = "request";
  const size_t at = request_topic.find(kRequest);
  if (at == std::string::npos) return {};
  std::string topic = request_topic;
  return topic.replace(at, kRequest.size(), "response");
}

JsonRpcBase::JsonRpcBase(std::string name, const char* tag) : name_(std::move(name)), tag_(tag) {}

CommsStatus JsonRpcBase::Publish(ClientMqttBase* client, const std::string& topic,
                                 std::string_view envelope) const {
  if (!client || topic.empty()) {
    VLOG_ERROR(tag_, "Unsupported operation");
    return CommsStatus::kUnsupported;
  }
  return client->Send(topic, Qos::kAtMostOnce, false, envelope);
}

void JsonRpcBase::LogInvalidMessage(std::string_view payload) const {
  VLOG_ERROR(tag_, "Receive an invalid message: {}", LogPayload(payload, kLoggedBytes));
}

void JsonRpcBase::LogFailure(const ParseFailure& failure, std::string_view payload) const {
  switch (failure.kind) {
    case ParseFailure::Kind::kSyntax:
      VLOG_ERROR(tag_, "parse error at byte {}", failure.byte);
      break;
    case ParseFailure::Kind::kOther:
      VLOG_ERROR(tag_, "json exception {}", utils::LogText(failure.text));
      break;
    case ParseFailure::Kind::kTooLarge:
    case ParseFailure::Kind::kTooDeep:
    case ParseFailure::Kind::kNotAnObject:
      LogInvalidMessage(payload);
      break;
  }
}

}  // namespace varnel::comms

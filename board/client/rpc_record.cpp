#include "virtual_board/client/rpc_record.h"

#include <algorithm>

#include "virtual_board/client/daemon_talk.h"

namespace varnel::board {

using nlohmann::json;

namespace {

/// Values that nest deeper than any request that is served: copying one would exhaust the stack.
bool DropTheDeep(int depth, json::parse_event_t, json&) {
  return depth <= 80;
}

/// The answer's result or error alone.
json Outcome(const json& answer) {
  for (const char* member : {"result", "error"}) {
    if (answer.is_object() && answer.contains(member)) return {{member, answer.at(member)}};
  }
  return nullptr;
}

/// Whether a method is the board's own, and its caller in the cloud.
bool IsForbidden(const std::string& topic, const std::string& method) {
  return topic.starts_with("<serial>/") && method.starts_with("mqtt_agent.");
}

std::optional<std::string> CheckForbidden(const json& answer) {
  const json code = answer.value(json::json_pointer("/error/code"), json());
  if (code == -32601) return std::nullopt;
  return "a method of the board's own answers the cloud: " + answer.dump();
}

}  // namespace

json RpcRequest(const json& id, const std::string& method, const json& params) {
  return {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}};
}

json RpcRecord::NextId() {
  const std::lock_guard lock(mutex_);
  return "call-" + std::to_string(++last_id_);
}

json RpcRecord::Await(const json& id, std::chrono::milliseconds limit) {
  json answer;
  const auto arrived = [&, wanted = id.dump()] {
    const auto found = std::find_if(answers_.begin(), answers_.end(), [&](const json& one) {
      return one.contains("id") && one["id"].dump() == wanted;
    });
    if (found != answers_.end()) answer = *found;
    return found != answers_.end();
  };
  std::unique_lock lock(mutex_);
  arrived_.wait_for(lock, limit, arrived);
  return Outcome(answer);
}

std::vector<RpcRecord::Notification> RpcRecord::Notifications(const std::string& method) const {
  const std::lock_guard lock(mutex_);
  std::vector<Notification> found;
  const auto [first, last] = notifications_.equal_range(json(method).dump());
  for (auto it = first; it != last; ++it) found.push_back(it->second);
  return found;
}

std::vector<json> RpcRecord::Answers() const {
  const std::lock_guard lock(mutex_);
  return answers_;
}

std::vector<std::string> RpcRecord::Problems() const {
  const std::lock_guard lock(mutex_);
  return problems_;
}

void RpcRecord::OnMessage(const std::string& topic, const std::string& payload) {
  const json message = json::parse(payload, DropTheDeep, false);
  const std::lock_guard lock(mutex_);
  if (topic == "moonraker/response") return;  // what another program answers is no part of ours
  if (topic.find("/response") != std::string::npos) {
    OnAnswer(topic, message);
  } else if (topic.ends_with("/notification")) {
    Judge(topic, DaemonContract().CheckNotification(topic, message));
    OnNotification(message);
  } else if (message.is_object() && message.contains("id") && message.contains("method")) {
    OnRequest(message);
  }
  arrived_.notify_all();
}

void RpcRecord::OnRequest(const json& request) {
  if (request.at("method").is_string()) open_.emplace(request.at("id").dump(), request);
}

void RpcRecord::OnNotification(const json& notification) {
  if (!notification.is_object() || !notification.contains("method")) return;
  notifications_.emplace(notification["method"].dump(),
                         Notification{std::chrono::steady_clock::now(), answers_.size(),
                                      notification.value("params", json())});
}

void RpcRecord::OnAnswer(const std::string& topic, const json& answer) {
  answers_.push_back(answer);
  const auto request =
      answer.is_object() && answer.contains("id") ? open_.find(answer["id"].dump()) : open_.end();
  if (request == open_.end()) {
    Judge(topic, "answers no request: " + answer.dump().substr(0, 200));
    return;
  }
  const std::string method = request->second.at("method");
  Judge(topic, IsForbidden(topic, method)
                   ? CheckForbidden(answer)
                   : DaemonContract().CheckAnswer(method, request->second, answer));
  open_.erase(request);
}

void RpcRecord::Judge(const std::string& topic, const std::optional<std::string>& problem) {
  if (problem) problems_.push_back(topic + ": " + *problem);
}

}  // namespace varnel::board

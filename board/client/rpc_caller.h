#pragma once

#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "virtual_board/client/board.h"
#include "virtual_board/client/mqtt_link.h"
#include "virtual_board/client/rpc_record.h"

namespace varnel::board {

/// Calls the methods of a board's daemon and watches all topics meanwhile: every request, answer
/// and notification that passes the broker, whoever sent it, is held against the contract.
class RpcCaller {
 public:
  using json = nlohmann::json;

  explicit RpcCaller(const Board& board);

  /// Returns when the daemon answers; false when it does not within the limit.
  bool AwaitDaemon(std::chrono::seconds limit = std::chrono::seconds(60));

  /// Sends a request and returns the id it was given, which Await() takes.
  json Post(const std::string& method, const json& params,
            const std::string& topic = "camera/request");
  /// The answer; null when there is none within the limit.
  json Await(const json& id, std::chrono::milliseconds limit = std::chrono::seconds(60)) {
    return record_.Await(id, limit);
  }
  /// Post() and Await(): {"result": ...} or {"error": ...}, null without an answer.
  json Call(const std::string& method, const json& params,
            const std::string& topic = "camera/request");
  /// Any bytes to any topic.
  void Publish(const std::string& topic, const std::string& payload);

  using Notification = RpcRecord::Notification;
  [[nodiscard]] std::vector<Notification> Notifications(const std::string& method) const {
    return record_.Notifications(method);
  }
  [[nodiscard]] std::vector<json> Answers() const { return record_.Answers(); }
  [[nodiscard]] std::vector<std::string> Problems() const { return record_.Problems(); }

 private:
  void Watch(const std::stop_token& stop);

  std::mutex send_mutex_;
  MqttLink sender_;  // send_mutex_
  MqttLink spy_;     // the watching thread's
  RpcRecord record_;
  std::jthread watcher_;  // last: it uses the rest
};

/// {"result": {"state": "success"}}
nlohmann::json Success();
/// {"error": {"code": code, "message": message}}
nlohmann::json Error(int code, const std::string& message);

}  // namespace varnel::board

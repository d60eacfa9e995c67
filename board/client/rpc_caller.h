#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "virtual_board/client/board.h"
#include "virtual_board/client/mqtt_link.h"

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
  json Await(const json& id, std::chrono::milliseconds limit = std::chrono::seconds(60));
  /// Post() and Await(): {"result": ...} or {"error": ...}, null without an answer.
  json Call(const std::string& method, const json& params,
            const std::string& topic = "camera/request");
  /// Any bytes to any topic.
  void Publish(const std::string& topic, const std::string& payload);

  /// A notification, when it came, and how many answers had come by then.
  struct Notification {
    std::chrono::steady_clock::time_point time;
    size_t answers;
    json params;
  };
  /// Those with this method so far, in order.
  [[nodiscard]] std::vector<Notification> Notifications(const std::string& method) const;
  /// All answers so far, as they were received.
  [[nodiscard]] std::vector<json> Answers() const;
  /// What broke the contract so far, one sentence each.
  [[nodiscard]] std::vector<std::string> Problems() const;

 private:
  void Watch(const std::stop_token& stop);
  void OnMessage(const std::string& topic, const std::string& payload);
  void OnRequest(const json& request);
  void OnNotification(const json& notification);
  void OnAnswer(const std::string& topic, const json& answer);
  void Judge(const std::string& topic, const std::optional<std::string>& problem);

  std::mutex send_mutex_;
  MqttLink sender_;  // send_mutex_
  MqttLink spy_;     // the watching thread's
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  int last_id_ = 0;                                         // mutex_
  std::multimap<std::string, json> open_;                   // requests by serialised id; mutex_
  std::vector<json> answers_;                               // mutex_
  std::vector<std::string> problems_;                       // mutex_
  std::multimap<std::string, Notification> notifications_;  // by method; mutex_
  std::jthread watcher_;                                    // last: it uses the rest
};

/// {"result": {"state": "success"}}
nlohmann::json Success();
/// {"error": {"code": code, "message": message}}
nlohmann::json Error(int code, const std::string& message);

}  // namespace varnel::board

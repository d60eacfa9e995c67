#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace varnel::board {

/// The requests, answers and notifications that passed a broker, each held against the contract.
/// Thread-safe.
class RpcRecord {
 public:
  using json = nlohmann::json;

  /// A notification, when it came, and how many answers had come by then.
  struct Notification {
    std::chrono::steady_clock::time_point time;
    size_t answers;
    json params;
  };

  void OnMessage(const std::string& topic, const std::string& payload);

  /// An id that no other request has.
  json NextId();
  /// The answer with this id: {"result": ...} or {"error": ...}; null when there is none within the
  /// limit.
  json Await(const json& id, std::chrono::milliseconds limit);
  /// Those with this method so far, in order.
  [[nodiscard]] std::vector<Notification> Notifications(const std::string& method) const;
  /// All answers so far, as they were received.
  [[nodiscard]] std::vector<json> Answers() const;
  /// What broke the contract so far, one sentence each.
  [[nodiscard]] std::vector<std::string> Problems() const;

 private:
  void OnRequest(const json& request);
  void OnNotification(const json& notification);
  void OnAnswer(const std::string& topic, const json& answer);
  void Judge(const std::string& topic, const std::optional<std::string>& problem);

  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  int last_id_ = 0;                                         // mutex_
  std::multimap<std::string, json> open_;                   // requests by serialised id; mutex_
  std::vector<json> answers_;                               // mutex_
  std::vector<std::string> problems_;                       // mutex_
  std::multimap<std::string, Notification> notifications_;  // by method; mutex_
};

/// A JSON-RPC 2.0 request.
nlohmann::json RpcRequest(const nlohmann::json& id, const std::string& method,
                          const nlohmann::json& params);

}  // namespace varnel::board

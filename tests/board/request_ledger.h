#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "virtual_board/client/mqtt_link.h"

namespace varnel::board {

/// Numbered requests over several methods, topics and pools of the daemon, each with one right
/// answer, and what became of them. Every fault is a failure of the running test.
class RequestLedger {
 public:
  static constexpr const char* kTopics[] = {"camera", "system"};

  /// Sends the next request of the mix; its number.
  size_t Send(MqttLink& link);
  /// Sends a cheap request on this topic.
  size_t Probe(MqttLink& link, const std::string& topic);
  /// Probes all topics until each has answered: from then on the daemon is there. False when it is
  /// not within the limit.
  [[nodiscard]] bool AwaitService(MqttLink& link, std::chrono::milliseconds limit);
  /// Takes an answer in, which may belong to any request sent so far.
  void Take(const Message& message);

  /// How many of the requests from this number on are not answered.
  [[nodiscard]] size_t Open(size_t from) const;
  [[nodiscard]] size_t Size() const { return entries_.size(); }

  /// By the daemon's log: what it received it received once, it ran once, and nothing was answered
  /// that had not been received.
  void CheckAgainst(const std::string& log) const;

 private:
  struct Entry {
    std::string topic;
    std::string method;
    nlohmann::json params;
    nlohmann::json answer;  ///< {"result": ...} or {"error": ...}
    std::string trace;  ///< what the log says when it runs; empty: nothing that tells its number
    int answers = 0;
  };
  [[nodiscard]] static nlohmann::json Request(size_t id, const Entry& entry);
  size_t Send(MqttLink& link, Entry entry);

  std::vector<Entry> entries_;
};

}  // namespace varnel::board

#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "virtual_board/client/cloud.h"
#include "virtual_board/client/rpc_record.h"

namespace varnel::board {

/// A cloud client that calls the methods of one device and watches the device's topics meanwhile.
/// When the broker goes away it comes again as soon as there is one. What passes is held against
/// the contract, which names the device "<serial>" in topics.
class CloudCaller {
 public:
  using json = nlohmann::json;

  CloudCaller(const Cloud& cloud, std::string serial_number);

  /// Sends a request and returns the id it was given; null when there is no broker.
  json Post(const std::string& method, const json& params);
  /// The answer; null when there is none within the limit.
  json Await(const json& id, std::chrono::milliseconds limit = std::chrono::seconds(60)) {
    return record_.Await(id, limit);
  }
  /// Post() and Await().
  json Call(const std::string& method, const json& params,
            std::chrono::milliseconds limit = std::chrono::seconds(60));
  /// Calls every quarter of a second until there is an answer, which it returns; null when none
  /// came within the limit.
  json CallUntilAnswered(const std::string& method, const json& params,
                         std::chrono::seconds limit = std::chrono::seconds(90));
  /// Any bytes to any topic, at QoS 1; false when there is no broker.
  bool Publish(const std::string& topic, const std::string& payload);
  /// What passed so far.
  [[nodiscard]] const RpcRecord& Record() const { return record_; }

 private:
  void Watch(const std::stop_token& stop);
  /// Until the link breaks, which throws.
  void WatchLink(const std::stop_token& stop);

  const Cloud& cloud_;
  const std::string device_;
  const std::string name_;  ///< of the clients
  std::mutex send_mutex_;
  std::unique_ptr<MqttLink> sender_;  // send_mutex_
  RpcRecord record_;
  std::jthread watcher_;  // last: it uses the rest
};

}  // namespace varnel::board

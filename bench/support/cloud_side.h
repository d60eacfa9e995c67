#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "support/caller.h"
#include "virtual_board/client/cloud.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::bench {

/// A running board and its cloud, driven from the host; --board and --cloud, their directories.
/// What fails is a std::runtime_error.
class CloudSide {
 public:
  explicit CloudSide(const Options& options);

  board::Cloud& TheCloud() { return *cloud_; }
  [[nodiscard]] const std::string& SerialNumber() const { return serial_number_; }
  /// A client of the board's own broker.
  [[nodiscard]] MqttLink LocalLink(const std::string& client_id) const;

  /// Calls "mqtt_agent.<method>" and gives its result.
  nlohmann::json Ask(const std::string& method, const nlohmann::json& params = nullptr);
  /// Waits until the daemon tells of this state of its cloud link.
  void AwaitStatus(const std::string& status);

 private:
  std::unique_ptr<board::Cloud> cloud_;
  const board::Layout layout_;
  const std::string serial_number_;
  MqttLink link_;
  uint64_t id_ = 0;
};

}  // namespace varnel::bench

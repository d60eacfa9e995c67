#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "comms/status.h"
#include "service/system/upgrade/firmware_catalogue.h"
#include "service/system/upgrade/firmware_download.h"

namespace varnel::service {

/// What clients are told of firmware. Thread-safe; what cannot be sent is logged.
class UpgradeNotifier {
 public:
  using Send = std::function<comms::CommsStatus(const std::string& method, nlohmann::json params)>;

  explicit UpgradeNotifier(Send send) : send_(std::move(send)) {}

  /// @param state "downloading" or "upgrading"
  void Progress(const char* state, int percent) const;
  /// @param state "success", "failed" or "warning"
  /// @param message may be empty. False when it could not be sent.
  bool Outcome(const char* state, const std::string& reason, const std::string& message = {}) const;
  /// How an upgrade ended, as its record says. False when it could not be sent.
  [[nodiscard]] bool Ended(const std::string& outcome) const;
  void Offer(const FirmwareOffer& offer, bool is_downloading) const;

 private:
  const Send send_;
};

}  // namespace varnel::service

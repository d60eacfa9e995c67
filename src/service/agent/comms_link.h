#pragma once

#include <atomic>
#include <string>

#include "comms/comms_manager.h"
#include "service/agent/agent_ports.h"
#include "service/agent/cloud_message_filter.h"

namespace varnel::service {

/// The brokers, through the communication manager.
class CommsLink : public AgentComms {
 public:
  /// Both outlive it, and what it registers with the manager.
  CommsLink(comms::CommsManager& comms, CloudMessageFilter& filter)
      : comms_(comms), filter_(filter) {}

  bool IsLocalConnected() const override { return comms_.IsLocalConnected(); }
  bool IsCloudConnected() const override { return comms_.IsCloudConnected(); }
  void ConnectCloud(const nlohmann::json& auth_info) override;
  void DisconnectCloud() override { comms_.DisconnectCloud(); }
  void PublishLocal(const std::string& topic, const nlohmann::json& message) override;
  void PublishCloud(const std::string& topic, const nlohmann::json& message) override;
  void SetupForwarders(const std::string& serial_number, LinkCallback callback) override;

 private:
  comms::CommsManager& comms_;
  CloudMessageFilter& filter_;
};

}  // namespace varnel::service

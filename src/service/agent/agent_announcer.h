#pragma once

#include <string>

#include "service/agent/agent_ports.h"
#include "service/agent/agent_settings.h"

namespace varnel::service {

/// What the board and the cloud are told of the agent. Thread-safe.
class AgentAnnouncer {
 public:
  /// Both must outlive it.
  AgentAnnouncer(AgentComms& comms, const AgentSettings& settings, std::string serial_number)
      : comms_(comms), settings_(settings), serial_number_(std::move(serial_number)) {}

  /// "notify_mqtt_agent_status", for local clients.
  void Status(AgentState state) const;
  /// Tells Moonraker where the device stands.
  void Config(AgentState state) const;
  /// "notify_bind_user", for the cloud: who it takes the device to be bound to.
  void BoundUser(const std::string& region, int online) const;
  /// "notify_logout", for the cloud: that this user is on his way out.
  void Logout(const CloudUser& user, const std::string& region) const;

  /// What the device is called.
  [[nodiscard]] std::string DeviceName() const;

 private:
  void ToCloud(const char* method, const CloudUser& user, const std::string& region,
               int online) const;

  AgentComms& comms_;
  const AgentSettings& settings_;
  const std::string serial_number_;
};

}  // namespace varnel::service

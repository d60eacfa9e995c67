#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "service/agent/agent_settings.h"
#include "service/agent/agent_state.h"

namespace varnel::service {

/// What became of the cloud link.
enum class CloudLinkEvent { kConnected, kDisconnected, kTakenOver };

/// The brokers, as the agent uses them. Thread-safe. What cannot be published is logged.
class AgentComms {
 public:
  using LinkCallback = std::function<void(CloudLinkEvent event)>;

  virtual ~AgentComms() = default;
  virtual bool IsLocalConnected() const = 0;
  virtual bool IsCloudConnected() const = 0;
  /// Starts connecting with the authentication info; its outcome comes through the callback. Throws
  /// std::runtime_error when it cannot start.
  virtual void ConnectCloud(const nlohmann::json& auth_info) = 0;
  /// Ends the link or the attempt at one, without an event.
  virtual void DisconnectCloud() = 0;
  virtual void PublishLocal(const std::string& topic, const nlohmann::json& message) = 0;
  virtual void PublishCloud(const std::string& topic, const nlohmann::json& message) = 0;
  /// Makes the cloud client and its routes for a device.
  /// @param callback called on a thread of the link's; must not block
  virtual void SetupForwarders(const std::string& serial_number, LinkCallback callback) = 0;
};

/// Who uses the device, as the agent asks for it. Thread-safe; failures are logged.
class AgentUsers {
 public:
  virtual ~AgentUsers() = default;
  /// Reads what was saved.
  virtual void LoadConfig() = 0;
  /// Marks the bound user of a region for logout, whoever that is; it is told to the cloud as soon
  /// as that can be.
  virtual void NotifyLogout(const std::string& region) = 0;
  /// Who is being logged out of a region, once for each logout. Nothing for nobody.
  [[nodiscard]] virtual std::optional<CloudUser> TakeLogoutToTell(const std::string& region) = 0;
  /// Takes over who is bound, as the cloud has it; ends the binding if that is asked for, or is
  /// still to be told. False: the cloud does not know of it yet.
  virtual bool CheckUserRecordsHTTP(const std::string& region, bool forced_logout) = 0;
  /// Tries again by itself.
  /// @param status 0: offline
  virtual bool UpdateDeviceStatus(const std::string& region, int status) = 0;
};

/// Why a host cannot be reached; both empty: it can.
struct ProbeResult {
  std::string error{};          ///< for people
  std::string look_up_error{};  ///< the part of it that is the look-up's; empty: it was found
};

/// Tries whether a TCP connection to a host can be made.
using Probe = std::function<ProbeResult(const std::string& host, const std::string& port)>;

}  // namespace varnel::service

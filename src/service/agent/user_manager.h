#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "service/agent/agent_ports.h"
#include "service/agent/agent_settings.h"
#include "service/agent/auth/device_api.h"
#include "service/agent/cloud_message_filter.h"
#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Keeps in step with the cloud who the device is bound to. A logout that cannot be told to the
/// cloud is remembered until it can. Thread-safe.
class UserManager : public AgentUsers {
 public:
  /// What others do when something here has changed.
  struct Listeners {
    /// Who uses the device has changed.
    std::function<void()> on_user{};
    /// The cloud is to be told that this user is on his way out of a region.
    std::function<void(const std::string& region, const CloudUser& user)> on_logout{};
  };

  /// All of it outlives the manager.
  UserManager(AgentSettings& settings, DeviceAuthentication& authentication, DeviceApi& api,
              CloudMessageFilter& filter);
  UserManager(const UserManager&) = delete;
  UserManager& operator=(const UserManager&) = delete;

  /// Before anything else is called.
  void SetListeners(Listeners listeners);

  void LoadConfig() override;
  void NotifyLogout(const std::string& region) override;
  bool CheckUserRecordsHTTP(const std::string& region, bool forced_logout) override;
  bool UpdateDeviceStatus(const std::string& region, int status) override;

 private:
  [[nodiscard]] std::optional<CloudUser> BoundUser(const std::string& region);
  [[nodiscard]] bool Unbind(const std::string& region, const CloudUser& user);
  /// Who is still to be logged out there; an empty id: nobody.
  [[nodiscard]] CloudUser PendingIn(const std::string& region) const;
  void TakeOver(const std::string& region, const CloudUser& user);
  void TellLogout();

  AgentSettings& settings_;
  DeviceAuthentication& authentication_;
  DeviceApi& api_;
  CloudMessageFilter& filter_;
  Listeners listeners_;
  utils::Mutex checking_;  // one check at a time; held while it talks
};

}  // namespace varnel::service

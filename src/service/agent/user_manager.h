#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "service/agent/agent_ports.h"
#include "service/agent/agent_settings.h"
#include "service/agent/auth/device_api.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Keeps in step with the cloud who the device is bound to. A logout that cannot be told to the
/// cloud is remembered until it can. Thread-safe.
class UserManager : public AgentUsers {
 public:
  /// All of it outlives the manager.
  UserManager(AgentSettings& settings, DeviceAuthentication& authentication, DeviceApi& api)
      : settings_(settings), authentication_(authentication), api_(api) {}
  UserManager(const UserManager&) = delete;
  UserManager& operator=(const UserManager&) = delete;

  /// Called by the thread of a check when who uses the device has changed. Before any check.
  void SetOnUser(std::function<void()> callback) { on_user_ = std::move(callback); }

  void LoadConfig() override { settings_.Load(); }
  void NotifyLogout(const std::string& region) override;
  std::optional<CloudUser> TakeLogoutToTell(const std::string& region) override;
  bool CheckUserRecordsHTTP(const std::string& region, bool forced_logout) override;
  bool UpdateDeviceStatus(const std::string& region, int status) override;

 private:
  [[nodiscard]] bool HasToken(const std::string& region) const;
  [[nodiscard]] std::optional<CloudUser> BoundUser(const std::string& region);
  [[nodiscard]] bool Unbind(const std::string& region, const CloudUser& user);
  /// Who is still to be logged out there; an empty id: whoever is bound.
  [[nodiscard]] std::optional<CloudUser> MarkOf(const std::string& region) const;
  void TakeOver(const std::string& region, const CloudUser& user,
                const std::optional<CloudUser>& done);
  [[nodiscard]] bool Pause() const;

  AgentSettings& settings_;
  DeviceAuthentication& authentication_;
  DeviceApi& api_;
  std::function<void()> on_user_;
  utils::Mutex checking_;  // one check at a time; held while it talks
  utils::Mutex telling_;
  std::set<std::string> told_ GUARDED_BY(telling_);  ///< regions whose logout was told
};

}  // namespace varnel::service

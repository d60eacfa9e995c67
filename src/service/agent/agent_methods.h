#pragma once

#include <array>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "comms/comms_manager.h"
#include "service/agent/agent.h"
#include "service/agent/agent_settings.h"
#include "service/agent/auth/device_api.h"
#include "utils/mutex.h"
#include "utils/permits.h"

namespace varnel::service {

/// The methods "mqtt_agent.*", by which programs of the board reach the agent; none of them may be
/// called from the cloud. Two at a time talk to the cloud, on behalf of which the next one is
/// refused.
class AgentMethods {
 public:
  /// How many may talk to the cloud at a time.
  static constexpr int kTurns = 2;
  using MakeApi = std::function<std::unique_ptr<DeviceApi>()>;

  /// All of it outlives the methods.
  /// @param turns at the cloud, which others take as well
  AgentMethods(Agent& agent, AgentSettings& settings, AgentUsers& users,
               DeviceAuthentication& authentication, utils::Permits& turns,
               const MakeApi& make_api);
  AgentMethods(const AgentMethods&) = delete;
  AgentMethods& operator=(const AgentMethods&) = delete;

  /// @param owner of this object and all that it uses; the registrations keep it alive
  void Register(comms::CommsManager& comms, const std::shared_ptr<void>& owner);

 private:
  using Json = nlohmann::json;
  /// What a request to the cloud came to; null: it failed.
  using Ask = std::function<Json(DeviceApi& api, const std::string& region)>;

  struct Slot {
    utils::Mutex busy;
    std::unique_ptr<DeviceApi> api;
  };

  [[nodiscard]] Json SetRegion(const Json& params);
  [[nodiscard]] Json SetLinkMode(const Json& params);
  [[nodiscard]] Json SyncConfig(const Json& params);
  [[nodiscard]] Json Logout();
  [[nodiscard]] Json FactoryReset();
  [[nodiscard]] Json UpdateDeviceStatus(const Json& params);
  [[nodiscard]] Json RefreshAuthCode(const Json& params);
  [[nodiscard]] Json PushPrintTask(const Json& params);
  [[nodiscard]] Json PullPrintTask(const Json& params);
  [[nodiscard]] Json AuthorizeFileUrl(const Json& params);

  [[nodiscard]] Json WithCloud(const Ask& ask);
  [[nodiscard]] Json AskOver(DeviceApi& api, const Ask& ask);

  Agent& agent_;
  AgentSettings& settings_;
  AgentUsers& users_;
  DeviceAuthentication& authentication_;
  utils::Permits& turns_;
  std::array<Slot, kTurns> slots_;
};

}  // namespace varnel::service

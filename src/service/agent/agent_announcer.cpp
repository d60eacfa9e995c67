#include "service/agent/agent_announcer.h"

#include <nlohmann/json.hpp>

#include "comms/json_rpc_message.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AGENT";

}  // namespace

void AgentAnnouncer::Status(AgentState state) const {
  const CloudUser user = settings_.Get().user;
  comms_.PublishLocal(
      "mqtt_agent/notification",
      comms::MakeNotification(
          "notify_mqtt_agent_status",
          {{"state", StatusNameOf(state)}, {"userid", user.id}, {"username", user.name}}));
}

void AgentAnnouncer::Config(AgentState state) const {
  const AgentConfig config = settings_.Get();
  comms_.PublishLocal(
      "moonraker/request",
      comms::MakeRequest(
          "server.client_manager.sync_agent_config",
          {{"agent_state", state == AgentState::CONNECTED ? "connected" : "disconnected"},
           {"user", {{"username", config.user.name}}},
           {"region", config.region},
           {"link_mode", config.link_mode},
           {"name", DeviceName()}},
          "varnel-sync-agent-config"));
}

void AgentAnnouncer::BoundUser(const std::string& region, int online) const {
  ToCloud("notify_bind_user", settings_.Get().user, region, online);
}

void AgentAnnouncer::Logout(const CloudUser& user, const std::string& region) const {
  VLOG_INFO(kTag, "send notify logout message");
  ToCloud("notify_logout", user, region, 0);
}

void AgentAnnouncer::ToCloud(const char* method, const CloudUser& user, const std::string& region,
                             int online) const {
  comms_.PublishCloud(
      serial_number_ + "/notification",
      comms::MakeNotification(
          method,
          {{"userid", user.id}, {"username", user.name}, {"server", region}, {"online", online}}));
}

std::string AgentAnnouncer::DeviceName() const {
  const std::string name = settings_.Get().name;
  return name.empty() ? serial_number_ : name;
}

}  // namespace varnel::service

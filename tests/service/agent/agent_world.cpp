#include "service/agent/agent_world.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

namespace varnel::service {

using nlohmann::json;

bool AgentWorld::NotingClock::WaitUntil(utils::MutexLock& lock, utils::Condition& wake,
                                        TimePoint deadline, const std::function<bool()>& ready) {
  const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Now());
  world_.Note(fmt::format("wait({})", time.count()));
  return FakeClock::WaitUntil(lock, wake, deadline, ready);
}

AgentWorld::AgentWorld() {
  clock_.SetWallTime(std::chrono::sys_days(std::chrono::year(2100) / 1 / 1));
  Restart(Setup());
  Calls();
}

AgentSetup AgentWorld::Setup() {
  AgentSetup setup;
  setup.serial_number_file = dir / "oem/.sn";
  setup.serial_number = "SN12345";
  setup.places.regions = {{"int", {"api.int", "acc.int"}}, {"cn", {"api.cn", ""}}};
  setup.places.local_marker = dir / ".local_server";
  setup.settings = &settings;
  setup.comms = this;
  setup.credentials = this;
  setup.users = this;
  setup.probe = [this](const std::string& host, const std::string& port) {
    Note(fmt::format("probe({}:{})", host, port));
    return ProbeResult{probe_error, {}};
  };
  setup.take_dropped = [this] { return std::exchange(dropped, false); };
  setup.start_service = [this] { Note("service"); };
  setup.post_client_log = [this](const char* level, const std::string& message) {
    EXPECT_STREQ(level, "ERROR");
    Note("report(" + message + ")");
  };
  setup.random = [] { return 0.5; };
  setup.clock = &clock_;
  return setup;
}

void AgentWorld::Note(const std::string& call) {
  const std::lock_guard lock(calls_mutex_);
  calls_.push_back(call);
}

std::string AgentWorld::Calls() {
  const std::lock_guard lock(calls_mutex_);
  return fmt::format("{}", fmt::join(std::exchange(calls_, {}), " "));
}

void AgentWorld::PassTimes(int count) {
  for (int i = 0; i < count; ++i) agent().Pass();
}

void AgentWorld::Walk(AgentState state) {
  settings.Change([](AgentConfig& config) { config.region = "int"; });
  region_locked = state == AgentState::REGION_LOCKED;
  token_works = !region_locked;
  for (int i = 0; agent().State() != state; ++i) {
    if (i == 10) throw std::runtime_error("the agent does not get there");
    if (agent().State() == AgentState::CONNECTING_BROKER) {
      agent().Pass();
      cloud_up = true;
      agent().OnCloudConnected();
    }
    agent().Pass();
  }
  if (state == AgentState::CONNECTING_BROKER) agent().Pass();
  Calls();
}

bool AgentWorld::Outcome(const std::string& call, bool works) {
  Note(call);
  if (throws) throw std::runtime_error("thrown");
  return works;
}

void AgentWorld::ConnectCloud(const json& info) {
  (void)Outcome("connect(" + info.at("endpoint").get<std::string>() + ")", true);
}

void AgentWorld::DisconnectCloud() {
  cloud_up = false;
  Note("disconnect");
}

void AgentWorld::PublishLocal(const std::string& topic, const json& message) {
  const json& params = message.at("params");
  if (topic == "moonraker/request") {
    EXPECT_EQ(message.at("method"), "server.client_manager.sync_agent_config");
    return Note("config(" + params.at("agent_state").get<std::string>() + ")");
  }
  EXPECT_EQ(topic, "mqtt_agent/notification");
  EXPECT_EQ(message.at("method"), "notify_mqtt_agent_status");
  Note(params.at("state").get<std::string>());
}

void AgentWorld::PublishCloud(const std::string& topic, const json& message) {
  EXPECT_EQ(topic, "SN12345/notification");
  Note(message.at("method").get<std::string>() + message.at("params").at("server").dump());
}

void AgentWorld::SetupForwarders(const std::string& serial_number, LinkCallback callback) {
  Note("forward(" + serial_number + ")");
  callback(CloudLinkEvent::kDisconnected);
}

std::optional<CloudUser> AgentWorld::TakeLogoutToTell(const std::string& region) {
  EXPECT_EQ(region, "int");
  return std::exchange(logs_out, false) ? std::optional(CloudUser{"u", "Ada"}) : std::nullopt;
}

bool AgentWorld::CheckUserRecordsHTTP(const std::string& region, bool forced) {
  Note(fmt::format("{}({})", forced ? "unbind" : "check", region));
  return users_work;
}

bool AgentWorld::UpdateDeviceStatus(const std::string& region, int status) {
  Note(fmt::format("online({},{})", region, status));
  return users_work;
}

void AgentWorld::SetRegion(const std::string& region) {
  region_ = region;
  Note("region(" + region + ")");
}

bool AgentWorld::GetAccessToken(int64_t lifetime_h) {
  return Outcome(fmt::format("token({})", lifetime_h), token_works);
}

bool AgentWorld::RefreshToken(const utils::SharedSecret&) {
  Note("refresh");
  return refresh_works;
}

bool AgentWorld::GetAuthInfo() {
  return Outcome("info", info_works);
}

std::optional<json> AgentWorld::AuthInfo() const {
  return json{{"endpoint", "broker"}, {"port", "8883"}, {"region", region_}};
}

}  // namespace varnel::service

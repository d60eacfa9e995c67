// What happened since the last pass, in the order in which a pass looks at it.
#include <algorithm>
#include <utility>

#include "service/agent/agent.h"
#include "service/agent/auth/credential_store.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AGENT";
constexpr int kOffline = 0;
constexpr uint32_t kMostUntoldSyncs = 64;

bool IsBetween(AgentState state, AgentState first, AgentState last) {
  return state >= first && state <= last;
}

}  // namespace

void Agent::HandleDroppedRequest() {
  if (setup_.take_dropped()) TellLogout();
}

void Agent::TellLogout() {
  if (!comms_.IsCloudConnected()) return;
  const auto user = users_.TakeLogoutToTell(cloud_region_);
  if (!user) return;
  SyncConfig();
  announcer_.Logout(*user, cloud_region_);
}

void Agent::HandleReset() {
  if (!reset_.exchange(false)) return;
  const bool leaves = state_ > AgentState::IDLE;
  if (leaves) {
    const std::string region = LeaveCloud("Failed to update device status to offline (reset)");
    (void)users_.CheckUserRecordsHTTP(region, true);
  }
  if (setup_.credentials != nullptr) {
    setup_.credentials->RemoveClientCertificates();
    setup_.credentials->ClearAuthInfo();
    setup_.credentials->ForgetTokens();
  }
  cloud_region_.clear();
  online_status_ = kJustConnected;
  settings_.Change([](AgentConfig& config) { config.reset = false; });
  SyncConfig();
  if (!leaves) Announce();
}

void Agent::HandleServerDisconnected() {
  if (!server_disconnected_.exchange(false)) return;
  const AgentConfig config = settings_.Get();
  if (config.link_mode != "wan" || region_changed_ || !comms_.IsCloudConnected()) {
    VLOG_INFO(kTag, "HTTP server disconnected in LAN mode or region changed, no action taken");
    return;
  }
  VLOG_INFO(kTag, "HTTP server disconnected, updating device status to offline");
  ReportCloudFailure(CloudFailure::kServerDisconnected);
  GoOffline(cloud_region_, "Failed to update device status to offline");
  DropLink();
  pacing_.OnLost();
  TransitionTo(AgentState::FETCHING_AUTH_INFO);
  SyncConfig();
}

void Agent::HandleRegionChanged() {
  if (!region_changed_.exchange(false)) return;
  const AgentState state = state_;
  if (state == AgentState::IDLE) {
    VLOG_INFO(kTag, "Region changed in IDLE state, removing client certificates");
    if (setup_.credentials != nullptr) setup_.credentials->RemoveClientCertificates();
  } else if (IsBetween(state, AgentState::GET_ACCESS_TOKEN, AgentState::REGION_LOCKED) &&
             cloud_region_ != settings_.Get().region) {
    const std::string region =
        LeaveCloud("Failed to update device status to offline (region change)");
    VLOG_INFO(kTag, "Region changed at state {}, logout user at previous region: {}", NameOf(state),
              utils::LogText(region));
    if (users_.CheckUserRecordsHTTP(region, true)) TransitionTo(AgentState::IDLE);
  } else {
    VLOG_INFO(kTag, "Region changed in state {}, no action taken", NameOf(state));
  }
}

void Agent::HandleLanMode() {
  const AgentState state = state_;
  if (!IsBetween(state, AgentState::NETWORK_DETECTION, AgentState::REGION_LOCKED)) return;
  if (settings_.Get().link_mode != "lan") return;
  const std::string region =
      LeaveCloud("Failed to update device status to offline (link mode change)");
  VLOG_INFO(kTag, "Link mode changed to LAN at state {}, logout user at previous region: {}",
            NameOf(state), utils::LogText(region));
  if (users_.CheckUserRecordsHTTP(region, true))
    VLOG_INFO(kTag, "Logout user at region: {}", utils::LogText(region));
}

void Agent::HandleCloudConnected() {
  if (!cloud_connected_.exchange(false)) return;
  if (state_ != AgentState::CONNECTING_BROKER) {
    VLOG_WARN(kTag, "Cloud MQTT connected in state {}, ignored", NameOf(state_));
    return;
  }
  connecting_ = false;
  VLOG_INFO(kTag, "Connected to cloud broker");
  const std::string region = cloud_region_;
  const int status = online_status_;
  TellLogout();
  (void)users_.CheckUserRecordsHTTP(region, false);
  untold_pause_ = 1;
  untold_syncs_ = 0;
  server_changed_ = false;
  TellStatus();
  announcer_.BoundUser(region, status);
  TransitionTo(AgentState::CONNECTED);
  server_disconnected_ = false;
  SyncConfig();
  Announce();
}

void Agent::HandleCloudDisconnected() {
  if (!cloud_disconnected_.exchange(false)) return;
  if (state_ == AgentState::CONNECTING_BROKER) {
    OnConnectFailed();
  } else if (state_ == AgentState::CONNECTED) {
    OnConnectionLost();
  } else {
    VLOG_INFO(kTag, "Cloud MQTT disconnected in state {}, ignored", NameOf(state_));
  }
}

void Agent::OnConnectFailed() {
  connecting_ = false;
  VLOG_WARN(kTag, "Failed to connect to cloud broker, retrying...");
  HoldBack(&ConnectPacing::OnConnectFailed);
  if (--budget_ >= 1) return;
  VLOG_ERROR(kTag, "Exceeded maximum retries for connecting to broker, returning to IDLE state");
  DropLink();
  if (setup_.credentials != nullptr) {
    // A clock that is not set yet refuses every broker: that is no fault of the certificates.
    if (IsClockSet(clock_)) setup_.credentials->RemoveClientCertificates();
    setup_.credentials->ClearAuthInfo();
  }
  ReportCloudFailure(CloudFailure::kBrokerConnectFailed);
  pacing_.OnCycleFailed();
  TransitionTo(AgentState::IDLE);
}

void Agent::OnConnectionLost() {
  ReportCloudFailure(CloudFailure::kConnectionLost);
  HoldBack(&ConnectPacing::OnLost);
  TransitionTo(AgentState::CONNECTING_BROKER);
  Announce();
  SyncConfig();
  comms_.DisconnectCloud();
  GoOffline(cloud_region_, "Failed to update device status to offline (connection lost)");
}

void Agent::HoldBack(void (ConnectPacing::*pause)()) {
  (pacing_.*(taken_over_.exchange(false) ? &ConnectPacing::OnTakenOver : pause))();
}

std::string Agent::LeaveCloud(const char* offline_failure) {
  std::string region = cloud_region_;
  TransitionTo(AgentState::IDLE);
  Announce();
  SyncConfig();
  TellLogout();
  DropLink();
  GoOffline(region, offline_failure);
  return region;
}

void Agent::GoOffline(const std::string& region, const char* failure) {
  if (!users_.UpdateDeviceStatus(region, kOffline)) VLOG_ERROR(kTag, "{}", failure);
}

/// One that could not be told is told again, after pauses that double.
void Agent::TellStatus() {
  const int status = online_status_;
  if (users_.UpdateDeviceStatus(cloud_region_, status)) {
    untold_pause_ = 1;
    if (online_status_ != status) tell_status_ = true;
    return;
  }
  VLOG_ERROR(kTag, "Failed to update device status");
  untold_syncs_ = untold_pause_;
  untold_pause_ = std::min(untold_pause_ * 2, kMostUntoldSyncs);
}

void Agent::DropLink() {
  comms_.DisconnectCloud();
  cloud_connected_ = false;
  cloud_disconnected_ = false;
  taken_over_ = false;
  connecting_ = false;
}

}  // namespace varnel::service

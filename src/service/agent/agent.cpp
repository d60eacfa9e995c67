#include "service/agent/agent.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "service/agent/serial_number_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AGENT";
constexpr std::chrono::seconds kAfterException{1};
constexpr std::chrono::minutes kSavePause{5};

}  // namespace

Agent::Agent(AgentSetup setup)
    : setup_(std::move(setup)),
      settings_(*setup_.settings),
      comms_(*setup_.comms),
      users_(*setup_.users),
      clock_(*setup_.clock),
      announcer_(comms_, settings_, setup_.serial_number),
      pacing_(setup_.random),
      idle_line_(clock_),
      probe_line_(clock_) {
  VLOG_INFO(kTag, "Agent created with data root: {}", setup_.data_root.string());
  UpdateSerialNumberFile(setup_.serial_number_file, setup_.serial_number);
}

void Agent::PreConnectInit() {
  if (setup_.serial_number.empty()) {
    VLOG_WARN(kTag, "Serial number not available yet, cannot setup forwarders");
    return;
  }
  comms_.SetupForwarders(setup_.serial_number, [this](CloudLinkEvent event) {
    if (event == CloudLinkEvent::kConnected) {
      OnCloudConnected();
    } else {
      OnCloudDisconnected(event == CloudLinkEvent::kTakenOver);
    }
  });
  setup_.start_service();
  VLOG_INFO(kTag, "Agent PreConnectInit completed: forwarders and internal service started.");
}

void Agent::Run() {
  while (running_) {
    try {
      Pass();
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "agent pass in state {} failed: {}", NameOf(state_), error.what());
      Wait(kAfterException);
    }
  }
  settings_.SaveAgain();
}

void Agent::Pass() {
  if (clock_.Now() >= save_again_at_) {
    settings_.SaveAgain();
    save_again_at_ = clock_.Now() + kSavePause;
  }
  HandleDroppedRequest();
  HandleReset();
  HandleServerDisconnected();
  HandleRegionChanged();
  HandleLanMode();
  HandleCloudConnected();
  HandleCloudDisconnected();
  RunHandler();
}

void Agent::Stop() {
  running_ = false;
  EndWait();
}

void Agent::SetLinkMode(const std::string& link_mode) {
  const utils::MutexLock lock(setting_);
  const AgentConfig config = settings_.Get();
  if (config.link_mode == link_mode) return;
  if (config.link_mode == "wan") users_.NotifyLogout(config.region);
  VLOG_INFO(kTag, "Link mode updated to: {}", utils::LogText(link_mode));
  settings_.Change([&](AgentConfig& changed) { changed.link_mode = link_mode; });
  EndWait();
}

void Agent::SetRegion(const std::string& region) {
  const utils::MutexLock lock(setting_);
  const std::string old = settings_.Get().region;
  if (old == region) return;
  if (!old.empty()) users_.NotifyLogout(old);
  VLOG_INFO(kTag, "Region updated to: {}", utils::LogText(region));
  const bool is_change = !old.empty() || state_ != AgentState::IDLE;
  // Stored first: who sees the flag has to find the new region.
  settings_.Change([&](AgentConfig& changed) {
    changed.region = region;
    changed.user = {};  // of the old one, which knows by its mark whom it is to log out
  });
  if (is_change) region_changed_ = true;
  EndWait();
}

void Agent::FactoryReset() {
  const utils::MutexLock lock(setting_);
  users_.NotifyLogout(settings_.Get().region);
  settings_.Change(
      [](AgentConfig& changed) { changed = {.logouts = changed.logouts, .reset = true}; });
  reset_ = true;
  EndWait();
}

void Agent::CheckRecordsNow() {
  check_records_ = true;
}

void Agent::TellStatusNow() {
  tell_status_ = true;
}

void Agent::OnServerDisconnected() {
  VLOG_WARN(kTag, "Device disconnected error received from auth server, forcing logout");
  server_disconnected_ = true;
}

void Agent::OnCloudDisconnected(bool taken_over) {
  if (taken_over) taken_over_ = true;
  cloud_disconnected_ = true;
}

void Agent::AddOnConnected(std::function<void()> callback) {
  const utils::MutexLock lock(callbacks_mutex_);
  on_connected_.push_back(std::move(callback));
}

void Agent::ClearOnConnected() {
  const utils::MutexLock lock(callbacks_mutex_);
  on_connected_.clear();
}

void Agent::RunOnConnected() {
  const utils::MutexLock lock(callbacks_mutex_);
  for (const auto& callback : on_connected_) {
    try {
      callback();
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "an on-connected callback failed: {}", error.what());
    }
  }
}

void Agent::TransitionTo(AgentState state) {
  const AgentState old = state_;
  if (old == state) return;
  budget_ = RetryBudgetOf(state);
  VLOG_INFO(kTag, "State transition: {} -> {}", NameOf(old), NameOf(state));
  state_ = state;
  if (state == AgentState::IDLE) reported_ = CloudFailure::kNone;
  if (state == AgentState::CONNECTED) {
    last_failure_ = CloudFailure::kNone;
    pacing_.OnConnected();
    RunOnConnected();
  }
}

void Agent::Announce() {
  announced_ = state_;
  SendStatusNotification();
}

void Agent::ReportCloudFailure(CloudFailure reason) {
  if (reason == CloudFailure::kNone) return;
  last_failure_ = reason;
  if (reported_.exchange(reason) == reason) return;
  try {
    setup_.post_client_log("ERROR", NameOf(reason));
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "ReportCloudFailure exception: {}", error.what());
  }
}

LinkCredentials& Agent::Credentials() const {
  if (setup_.credentials == nullptr)
    throw std::runtime_error("Authentication instance not initialized");
  return *setup_.credentials;
}

void Agent::WaitExactly(std::chrono::milliseconds time) {
  utils::MutexLock lock(wait_mutex_);
  const bool wished = clock_.WaitUntil(lock, wake_, clock_.Now() + time,
                                       [this]() REQUIRES(wait_mutex_) { return end_wait_; });
  end_wait_ = false;
  if (wished) pacing_.OnWish();
}

void Agent::EndWait() {
  {
    const utils::MutexLock lock(wait_mutex_);
    end_wait_ = true;
  }
  wake_.NotifyAll();
}

}  // namespace varnel::service

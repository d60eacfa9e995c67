// The step of each state.
#include <exception>
#include <stdexcept>
#include <utility>

#include "service/agent/agent.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;

constexpr const char* kTag = "MA_AGENT";
constexpr const char* kAccountPort = "443";
constexpr size_t kShortestSerialNumber = 5;
constexpr uint32_t kTicksBetweenSyncs = 299;
constexpr auto kTick = 100ms;
constexpr auto kTokenLifetime = 90'000s;  // past its refresh, which may take a few attempts
constexpr auto kRefreshAfter = 86'400s;
constexpr auto kRefusedPause = 30s;
constexpr int kRoundsPerBroker = 3;

/// As the cloud wants it: rounded.
constexpr int64_t LifetimeInHours(std::chrono::seconds lifetime) {
  return (lifetime.count() + 1800) / 3600;
}

/// The account server has one host for "cn", and one for all else; without one the API's is tried.
std::string AccountHostOf(const CloudPlaces& places, const std::string& region) {
  const auto found = places.regions.find(region == "cn" ? "cn" : "int");
  if (found == places.regions.end()) return {};
  return found->second.account.empty() ? found->second.api : found->second.account;
}

}  // namespace

void Agent::RunHandler() {
  switch (state_) {
    case AgentState::INIT:
      return OnInit();
    case AgentState::IDLE:
      return OnIdle();
    case AgentState::NETWORK_DETECTION:
      return OnNetworkDetection();
    case AgentState::GET_ACCESS_TOKEN:
      return OnGetAccessToken();
    case AgentState::FETCHING_AUTH_INFO:
      return OnFetchingAuthInfo();
    case AgentState::BROKER_DETECTION:
      return OnBrokerDetection();
    case AgentState::CONNECTING_BROKER:
      return OnConnectingBroker();
    case AgentState::CONNECTED:
      return OnConnected();
    case AgentState::REGION_LOCKED:
      return OnRegionLocked();
  }
}

void Agent::OnInit() {
  users_.LoadConfig();
  if (settings_.Get().reset) reset_ = true;
  TransitionTo(AgentState::IDLE);
}

void Agent::OnIdle() {
  if (!comms_.IsLocalConnected()) return Wait(1s);
  if (announced_ != AgentState::IDLE) {
    Announce();
    SyncConfig();
  }
  if (const auto pause = pacing_.TakeCyclePause(); pause > 0ms) return WaitExactly(pause);
  const AgentConfig config = settings_.Get();
  const bool wanted = !config.region.empty() && config.link_mode == "wan" &&
                      setup_.serial_number.size() >= kShortestSerialNumber;
  if (wanted && IsRegion(setup_.places, config.region)) {
    idle_line_.Forget();
    cloud_region_ = config.region;
    return TransitionTo(AgentState::NETWORK_DETECTION);
  }
  const std::string region = utils::LogText(config.region);
  if (idle_line_.IsDue(region + ' ' + config.link_mode)) {
    VLOG_INFO(kTag, "region: {}, link_mode: {}, sn: {}", region, config.link_mode,
              utils::LogText(setup_.serial_number));
    if (wanted) VLOG_WARN(kTag, "the region {} has no cloud host, staying in IDLE", region);
  }
  Wait(1s);
}

void Agent::OnNetworkDetection() {
  // Another region may have been chosen since IDLE looked.
  if (!IsRegion(setup_.places, settings_.Get().region)) return TransitionTo(AgentState::IDLE);
  Announce();
  SyncConfig();
  if (IsInternetReachable()) return TransitionTo(AgentState::GET_ACCESS_TOKEN);
  if (budget_ >= 0) --budget_;
  if (budget_ >= 0) {
    VLOG_WARN(kTag, "Internet not reachable, retrying...");
  } else {
    ReportCloudFailure(CloudFailure::kNetworkUnreachable);
  }
  Wait(1s);
}

bool Agent::IsInternetReachable() {
  if (IsLocalMode(setup_.places)) {
    if (probe_line_.IsDue("local")) VLOG_INFO(kTag, "local mode");
    return true;
  }
  const std::string host = AccountHostOf(setup_.places, settings_.Get().region);
  const ProbeResult result = setup_.probe(host, kAccountPort);
  if (!probe_line_.IsDue(host + ' ' + result.error)) return result.error.empty();
  if (result.error.empty()) {
    VLOG_INFO(kTag, "Pinged host at {} successfully", host);
  } else if (!result.look_up_error.empty()) {
    VLOG_WARN(kTag, "getaddrinfo failed for host at {}: {}", host, result.look_up_error);
  } else {
    VLOG_WARN(kTag, "No connection to host at {}: {}", host, result.error);
  }
  return result.error.empty();
}

void Agent::OnGetAccessToken() {
  Announce();
  if (TryGetAccessToken()) return;
  if (--budget_ > 0) return Wait(pacing_.TokenPause());
  FallBack("Exceeded maximum retries for fetching access token, returning to IDLE state",
           CloudFailure::kAccessTokenFailed);
}

bool Agent::TryGetAccessToken() {
  try {
    LinkCredentials& credentials = Credentials();
    const std::string region = settings_.Get().region;
    if (!IsRegion(setup_.places, region)) {
      TransitionTo(AgentState::IDLE);
      return true;
    }
    cloud_region_ = region;
    credentials.SetRegion(region);
    credentials.StartFetchCountryCode();
    if (credentials.GetAccessToken(LifetimeInHours(kTokenLifetime))) {
      VLOG_INFO(kTag, "Fetched access code");
      token_is_new_ = true;
      TransitionTo(AgentState::FETCHING_AUTH_INFO);
      return true;
    }
    if (credentials.IsRegionLocked()) {
      VLOG_WARN(kTag, "Region locked (code 602013), entering REGION_LOCKED state");
      ReportCloudFailure(CloudFailure::kRegionLocked);
      tell_region_lock_ = false;
      TransitionTo(AgentState::REGION_LOCKED);
      return true;
    }
    VLOG_WARN(kTag, "Failed to fetch access token, retrying...");
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Exception during fetching access token: {}", error.what());
  }
  return false;
}

void Agent::OnFetchingAuthInfo() {
  Announce();
  if (TryFetchAuthInfo()) return;
  if (--budget_ > 0) return Wait(3s);
  FallBack("Exceeded maximum retries for fetching auth info, returning to IDLE state",
           CloudFailure::kAuthInfoFailed);
}

bool Agent::TryFetchAuthInfo() {
  try {
    LinkCredentials& credentials = Credentials();
    credentials.ClearAuthInfo();
    if (credentials.GetAuthInfo()) {
      if (const auto info = credentials.AuthInfo()) {
        cloud_region_ = info->at("region").get<std::string>();
        VLOG_INFO(kTag, "Obtained authentication info successfully");
        if (std::exchange(token_is_new_, false)) refresh_at_ = clock_.Now() + kRefreshAfter;
        TransitionTo(AgentState::BROKER_DETECTION);
        return true;
      }
    }
    VLOG_WARN(kTag, "Failed to obtain authentication info, retrying...");
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Exception during fetching auth info: {}", error.what());
  }
  return false;
}

void Agent::OnBrokerDetection() {
  Announce();
  const std::string problem = BrokerProblem();
  if (problem.empty()) {
    VLOG_INFO(kTag, "Broker is reachable");
    unreachable_brokers_ = 0;
    return TransitionTo(AgentState::CONNECTING_BROKER);
  }
  VLOG_WARN(kTag, "Broker unreachable: {}", utils::LogText(problem));
  if (--budget_ > 0) return Wait(1s);
  if (++unreachable_brokers_ % kRoundsPerBroker == 0 && setup_.credentials != nullptr)
    setup_.credentials->DistrustCache();
  FallBack("Broker detection retries exhausted, returning to IDLE",
           CloudFailure::kBrokerUnreachable);
}

std::string Agent::BrokerProblem() const {
  try {
    const auto info = Credentials().AuthInfo();
    if (!info) return "there is no authentication info";
    const int port = std::stoi(info->at("port").get<std::string>());
    return setup_.probe(info->at("endpoint").get<std::string>(), std::to_string(port)).error;
  } catch (const std::exception& error) {
    return error.what();
  }
}

void Agent::OnConnectingBroker() {
  if (connecting_) return Wait(1s);
  if (const auto pause = pacing_.TakeConnectPause(); pause > 0ms) return WaitExactly(pause);
  connecting_ = true;
  Announce();
  try {
    const auto info = Credentials().AuthInfo();
    if (!info) throw std::runtime_error("there is no authentication info");
    comms_.ConnectCloud(*info);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Exception during cloud client connect: {}", error.what());
    DropLink();
    ReportCloudFailure(CloudFailure::kBrokerConnectFailed);
    pacing_.OnCycleFailed();
    TransitionTo(AgentState::IDLE);
  }
}

void Agent::OnConnected() {
  if (check_records_.exchange(false) || ++ticks_ > kTicksBetweenSyncs) {
    ticks_ = 0;
    TellLogout();
    SyncConfig();
    Announce();
    (void)users_.CheckUserRecordsHTTP(cloud_region_, false);
    if (untold_syncs_ > 0 && --untold_syncs_ == 0) tell_status_ = true;
    server_changed_ = !Credentials().HasToken();
  }
  if (tell_status_.exchange(false)) TellStatus();
  if (IsRefreshDue()) RefreshToken();
  WaitExactly(kTick);
}

bool Agent::IsRefreshDue() const {
  const auto now = clock_.Now();
  const bool refused = server_changed_ || Credentials().IsTokenRefused();
  return now >= refresh_at_ || (refused && now >= refused_again_at_);
}

void Agent::RefreshToken() {
  VLOG_INFO(kTag, "Refreshing authentication token...");
  refused_again_at_ = clock_.Now() + kRefusedPause;
  if (Credentials().RefreshToken(nullptr)) {
    VLOG_INFO(kTag, "Successfully refreshed authentication token");
    refresh_at_ = clock_.Now() + kRefreshAfter;
    budget_ = RetryBudgetOf(AgentState::CONNECTED);
    return RunOnConnected();
  }
  VLOG_WARN(kTag, "Failed to refresh authentication token");
  if (--budget_ >= 1) return;
  VLOG_ERROR(kTag, "Exceeded maximum retries for refreshing access token, returning to IDLE state");
  ReportCloudFailure(CloudFailure::kTokenRefreshFailed);
  GoOffline(cloud_region_, "Failed to update device status to offline");
  DropLink();
  pacing_.OnCycleFailed();
  TransitionTo(AgentState::IDLE);
}

void Agent::OnRegionLocked() {
  tell_region_lock_ = !tell_region_lock_;
  if (tell_region_lock_) {
    SyncConfig();
    Announce();
  }
  Wait(1s);
}

void Agent::FallBack(const char* text, CloudFailure reason) {
  VLOG_ERROR(kTag, "{}", text);
  ReportCloudFailure(reason);
  pacing_.OnCycleFailed();
  TransitionTo(AgentState::IDLE);
}

}  // namespace varnel::service

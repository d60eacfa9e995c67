#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "service/agent/agent_announcer.h"
#include "service/agent/agent_ports.h"
#include "service/agent/agent_settings.h"
#include "service/agent/agent_state.h"
#include "service/agent/auth/link_credentials.h"
#include "service/agent/auth/regions.h"
#include "service/agent/connect_pacing.h"
#include "service/agent/repeated_line.h"
#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::service {

/// What an agent works with; what it refers to outlives it.
struct AgentSetup {
  std::filesystem::path data_root = "/home/ruxo/printer_data";
  std::filesystem::path serial_number_file = "/oem/printer_data/.ruxo.sn";
  std::string serial_number{};  ///< empty: not known
  CloudPlaces places{};
  AgentSettings* settings = nullptr;
  AgentComms* comms = nullptr;
  LinkCredentials* credentials = nullptr;  ///< null: the device cannot prove who it is
  AgentUsers* users = nullptr;
  Probe probe{};
  /// Whether a cloud request has been dropped since this was asked last.
  std::function<bool()> take_dropped{};
  /// Registers the methods by which local programs reach the agent.
  std::function<void()> start_service{};
  /// Sends a failure to the cloud's log; does not block.
  std::function<void(const char* level, const std::string& message)> post_client_log{};
  std::function<double()> random{};  ///< from 0 up to 1
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// Walks the device, step by step, from nothing known to connected to the cloud's broker, keeps it
/// there, and falls back when something fails. One thread runs it; everything public but
/// PreConnectInit(), Run() and Pass() may be called by any thread.
class Agent {
 public:
  explicit Agent(AgentSetup setup);
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// Before Run(). Without a serial number it does nothing.
  void PreConnectInit();
  /// Returns after Stop(), as soon as a call that is under way ends.
  void Run();
  /// Once round the loop: what happened since the last one, then the step of the current state.
  void Pass();
  void Stop();
  [[nodiscard]] bool IsStopping() const { return !running_; }

  void SetLinkMode(const std::string& link_mode);
  void SetRegion(const std::string& region);
  /// Forgets the user, the region and everything that the cloud gave, as soon as the loop gets to
  /// it, or at the next start.
  void FactoryReset();
  /// Who is bound is looked up at the next pass instead of within half a minute.
  void CheckRecordsNow();
  /// The cloud learns the device's name and status at the next pass.
  void TellStatusNow();
  /// The authentication server takes the device for disconnected.
  void OnServerDisconnected();
  void OnCloudConnected() { cloud_connected_ = true; }
  void OnCloudDisconnected(bool taken_over = false);

  [[nodiscard]] AgentState State() const { return state_; }
  /// Since the device was connected last.
  [[nodiscard]] CloudFailure LastFailure() const { return last_failure_; }
  [[nodiscard]] int OnlineStatus() const { return online_status_; }
  /// What the cloud is told of the device from now on.
  void SetOnlineStatus(int status) { online_status_ = status; }
  /// Called on the agent's thread at each entry into CONNECTED and after each new token; must not
  /// block.
  void AddOnConnected(std::function<void()> callback);
  void ClearOnConnected();

  void ReportCloudFailure(CloudFailure reason);
  void SendStatusNotification() const { announcer_.Status(state_); }
  [[nodiscard]] const AgentAnnouncer& Announcer() const { return announcer_; }
  void SyncConfig() const { announcer_.Config(state_); }

 private:
  static constexpr int kJustConnected = 1;

  void TransitionTo(AgentState state);
  void Announce();
  void RunOnConnected();
  /// The time is the least.
  void Wait(std::chrono::milliseconds time) { WaitExactly(pacing_.Spread(time)); }
  void WaitExactly(std::chrono::milliseconds time);
  void EndWait();
  [[nodiscard]] LinkCredentials& Credentials() const;

  // What happened, in the order of a pass.
  void HandleDroppedRequest();
  void HandleReset();
  void HandleServerDisconnected();
  void HandleRegionChanged();
  void HandleLanMode();
  void HandleCloudConnected();
  void HandleCloudDisconnected();
  /// To IDLE, with the link down and the cloud told; whose region it was.
  std::string LeaveCloud(const char* offline_failure);
  void GoOffline(const std::string& region, const char* failure);
  void TellStatus();
  void DropLink();
  void TellLogout();
  /// So long, or longer when another device has taken the link.
  void HoldBack(void (ConnectPacing::*pause)());
  void OnConnectFailed();
  void OnConnectionLost();

  // The step of each state.
  void RunHandler();
  void OnInit();
  void OnIdle();
  void OnNetworkDetection();
  void OnGetAccessToken();
  void OnFetchingAuthInfo();
  void OnBrokerDetection();
  void OnConnectingBroker();
  void OnConnected();
  void OnRegionLocked();
  [[nodiscard]] bool IsInternetReachable();
  [[nodiscard]] bool TryGetAccessToken();
  [[nodiscard]] bool TryFetchAuthInfo();
  [[nodiscard]] bool IsRefreshDue() const;
  void RefreshToken();
  void FallBack(const char* text, CloudFailure reason);
  [[nodiscard]] std::string BrokerProblem() const;

  const AgentSetup setup_;
  AgentSettings& settings_;
  AgentComms& comms_;
  AgentUsers& users_;
  utils::Clock& clock_;
  const AgentAnnouncer announcer_;

  std::atomic<AgentState> state_ = AgentState::INIT;
  std::atomic<bool> running_ = true;
  std::atomic<bool> server_disconnected_ = false;
  std::atomic<bool> region_changed_ = false;
  std::atomic<bool> cloud_connected_ = false;
  std::atomic<bool> cloud_disconnected_ = false;
  std::atomic<bool> taken_over_ = false;  ///< the link, by another one of the same name
  std::atomic<bool> reset_ = false;
  std::atomic<bool> check_records_ = false;
  std::atomic<bool> tell_status_ = false;
  std::atomic<CloudFailure> reported_ = CloudFailure::kNone;  ///< in this cycle
  std::atomic<CloudFailure> last_failure_ = CloudFailure::kNone;
  std::atomic<int> online_status_ = kJustConnected;

  utils::Mutex setting_;  // one setter at a time
  utils::Mutex callbacks_mutex_;
  std::vector<std::function<void()>> on_connected_ GUARDED_BY(callbacks_mutex_);
  utils::Mutex wait_mutex_;
  utils::Condition wake_;
  bool end_wait_ GUARDED_BY(wait_mutex_) = false;

  // The agent's thread only.
  utils::Clock::TimePoint save_again_at_{};
  utils::Clock::TimePoint refresh_at_{};
  utils::Clock::TimePoint refused_again_at_{};  ///< not before then for a token that is refused
  AgentState announced_ = AgentState::INIT;
  int32_t budget_ = 0;
  uint32_t ticks_ = 0;
  uint32_t untold_syncs_ = 0;    ///< until a status that could not be told is told again
  uint32_t untold_pause_ = 1;    ///< syncs, after the next failure
  int unreachable_brokers_ = 0;  ///< rounds one after another that ended there
  bool connecting_ = false;
  bool tell_region_lock_ = false;
  bool server_changed_ = false;  ///< so that there is no token for it
  bool token_is_new_ = false;
  std::string cloud_region_{};  ///< whose tokens and broker these are
  ConnectPacing pacing_;
  RepeatedLine idle_line_;
  RepeatedLine probe_line_;
};

}  // namespace varnel::service

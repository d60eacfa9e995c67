#pragma once

#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "service/agent/agent.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {

/// An agent over fakes that note each call in one line, in its order. Waits pass at once and are
/// noted too.
class AgentWorld : private AgentComms, private AgentUsers, private LinkCredentials {
 public:
  AgentWorld();

  /// What was called since the last time, joined by blanks.
  std::string Calls();
  /// Brings a fresh agent into a state, on the way that it takes when all goes well.
  void Walk(AgentState state);
  void PassTimes(int count);

  // What the world answers.
  bool local_up = true;
  bool cloud_up = false;
  bool users_work = true;
  bool token_works = true;
  bool region_locked = false;
  bool info_works = true;
  bool refresh_works = true;
  bool token_refused = false;
  bool dropped = false;
  bool logs_out = false;
  bool throws = false;
  std::string probe_error;

  test::LogCapture log;
  test::TempDir dir;
  AgentSettings settings{dir / "mqtt/agent_config.json"};
  Agent& agent() { return *agent_; }
  LinkCredentials* Credentials() { return this; }
  AgentSetup Setup();
  void Restart(AgentSetup setup) { agent_.emplace(std::move(setup)); }
  test::FakeClock& clock() { return clock_; }

 private:
  /// Notes how long the agent waits.
  class NotingClock : public test::FakeClock {
   public:
    explicit NotingClock(AgentWorld& world) : FakeClock(Waiting::kJump), world_(world) {}
    bool WaitUntil(utils::MutexLock& lock, utils::Condition& wake, TimePoint deadline,
                   const std::function<bool()>& ready) override;

   private:
    AgentWorld& world_;
  };

  bool IsLocalConnected() const override { return local_up; }
  bool IsCloudConnected() const override { return cloud_up; }
  void ConnectCloud(const nlohmann::json& info) override;
  void DisconnectCloud() override;
  void PublishLocal(const std::string& topic, const nlohmann::json& message) override;
  void PublishCloud(const std::string& topic, const nlohmann::json& message) override;
  void SetupForwarders(const std::string& serial_number, LinkCallback callback) override;

  void LoadConfig() override { Note("load"); }
  void NotifyLogout(const std::string& region) override { Note("logout(" + region + ")"); }
  std::optional<CloudUser> TakeLogoutToTell(const std::string& region) override;
  bool CheckUserRecordsHTTP(const std::string& region, bool forced) override;
  bool UpdateDeviceStatus(const std::string& region, int status) override;

  void SetRegion(const std::string& region) override;
  bool GetAccessToken(int64_t lifetime_h) override;
  bool IsRegionLocked() const override { return region_locked; }
  bool RefreshToken(const utils::SharedSecret&) override;
  bool IsTokenRefused() const override { return token_refused; }
  bool HasToken() const override { return true; }
  void ForgetTokens() override { Note("tokens-"); }
  bool GetAuthInfo() override;
  std::optional<nlohmann::json> AuthInfo() const override;
  void DistrustCache() override { Note("cache-"); }
  void ClearAuthInfo() override { Note("info-"); }
  void RemoveClientCertificates() override { Note("certs-"); }
  void StartFetchCountryCode() override {}

  bool Outcome(const std::string& call, bool works);
  void Note(const std::string& call);

  std::mutex calls_mutex_;  // the setters call on their own threads
  std::vector<std::string> calls_;
  std::string region_;
  NotingClock clock_{*this};
  std::optional<Agent> agent_;
};

}  // namespace varnel::service

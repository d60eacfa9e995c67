#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "hal_adapter/photo_taker.h"
#include "service/camera/monitor/monitor_files.h"
#include "service/camera/monitor/monitor_switches.h"
#include "service/camera/monitor/monitor_upload.h"
#include "utils/clock.h"

namespace varnel::service {

/// Sends a notification to clients. Called by the task's thread; may wait.
using MonitorNotify = std::function<void(const std::string& method, nlohmann::json params)>;

/// Takes pictures as long as a domain is on, on a thread of its own.
class MonitorTask {
 public:
  /// All outlives the task.
  struct Tools {
    hal_adapter::PhotoTaker& camera;
    MonitorSwitches& switches;
    MonitorFiles& files;
    MonitorUpload& upload;
    const MonitorNotify& notify;
    utils::Clock& clock;
  };

  explicit MonitorTask(const Tools& tools);
  /// Switches all off and waits for the round that runs.
  ~MonitorTask();
  MonitorTask(const MonitorTask&) = delete;
  MonitorTask& operator=(const MonitorTask&) = delete;

 private:
  using Round = MonitorSwitches::Round;
  using TimePoint = utils::Clock::TimePoint;

  /// How long rounds took since the last domain went on.
  struct Figures {
    uint64_t rounds = 0;
    int64_t total_ms = 0;
    std::optional<TimePoint> told{};
  };

  void Run();
  void Watch();
  void TellStatus(nlohmann::json params) const;
  [[nodiscard]] TimePoint DoRound(const Round& round);
  bool TakePicture(const Round& round);
  [[nodiscard]] bool Encrypt(const Round& round) const;
  void Deliver(const Round& round);
  void Upload(const Round& round);
  void TellTime(const Round& round, std::chrono::milliseconds time);

  const Tools tools_;
  int failed_photos_ = 0;  // in a row
  std::optional<TimePoint> failed_upload_;
  Figures figures_;
  std::jthread thread_;  // last: it uses the rest
};

}  // namespace varnel::service

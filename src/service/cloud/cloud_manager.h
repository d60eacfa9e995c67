#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "comms/comms_manager.h"
#include "service/agent/auth/device_authentication.h"
#include "service/cloud/cloud_access.h"
#include "utils/clock.h"
#include "utils/mutex.h"
#include "utils/permits.h"

namespace varnel::service {

/// What the cloud side of a board is made of.
struct CloudSetup {
  comms::CommsManager* comms = nullptr;  ///< outlives the manager
  std::filesystem::path data_root = "/home/ruxo/printer_data";
  std::filesystem::path serial_number_file = "/oem/printer_data/.ruxo.sn";
  std::string serial_number{};
  utils::SharedSecret private_key{};  ///< base64 of a DER private key
  std::string firmware_version{};
  CloudPlaces places{};
  std::string country_code_path{};
  std::string client_log_path{};  ///< empty: failures are only logged here
  CredentialKey credential_key{};
  int disconnected_code = 401;
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// Owns the cloud agent and its thread. Start() and Stop() by one thread.
class CloudManager {
 public:
  explicit CloudManager(CloudSetup setup);
  /// Stops it.
  ~CloudManager();
  CloudManager(const CloudManager&) = delete;
  CloudManager& operator=(const CloudManager&) = delete;

  /// Once.
  void Start();
  /// Whatever talks to the cloud ends soon. Does not wait.
  void RequestStop();
  /// Waits for the agent and for transfers, but not for long: what hangs is left behind.
  void Stop();

  /// For the other services; null-safe at any time. Lives as long as the manager.
  CloudAccess& Access() { return access_; }
  /// Says when transfers for the other services are to end; may outlive the manager.
  [[nodiscard]] TransferStop StopOfTransfers() const {
    return [stopping = stopping_] { return stopping->load(); };
  }
  /// Stop() waits a little for whatever holds this. May outlive the manager.
  [[nodiscard]] std::shared_ptr<void> HoldTransfer() const {
    ++*transfers_;
    return {transfers_.get(), [transfers = transfers_](void*) { --*transfers; }};
  }
  /// Null while all turns of those who wait for the cloud's answer on a worker are taken.
  [[nodiscard]] std::shared_ptr<void> TakeTurn() { return turns_->TryTake(); }
  /// Any thread.
  [[nodiscard]] bool IsConnected() const;
  /// What the cloud has of the newest firmware; nothing when it does not answer. Any thread.
  [[nodiscard]] std::optional<nlohmann::json> FirmwareRecord() const;
  /// What the cloud side holds and nobody else is to see. Any thread.
  void ForEachSecret(const std::function<void(std::string_view secret)>& visit) const;

 private:
  struct Side;

  [[nodiscard]] std::shared_ptr<Side> CurrentSide() const;

  const CloudSetup setup_;
  const std::shared_ptr<std::atomic<bool>> stopping_ = std::make_shared<std::atomic<bool>>(false);
  const std::shared_ptr<std::atomic<int>> transfers_ = std::make_shared<std::atomic<int>>(0);
  const std::shared_ptr<utils::Permits> turns_;
  CloudAccess access_;
  mutable utils::Mutex side_mutex_;
  std::shared_ptr<Side> side_ GUARDED_BY(side_mutex_);
  std::shared_ptr<std::atomic<bool>> finished_;
  std::jthread thread_;
};

}  // namespace varnel::service

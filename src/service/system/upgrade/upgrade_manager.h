#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "comms/comms_manager.h"
#include "hal_interface/hal_status.h"
#include "service/system/upgrade/firmware_catalogue.h"
#include "service/system/upgrade/firmware_check.h"
#include "service/system/upgrade/firmware_download.h"
#include "service/system/upgrade/firmware_store.h"
#include "service/system/upgrade/upgrade_notifier.h"
#include "service/system/upgrade/upgrade_record.h"
#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::service {

/// What is known of the firmware that the cloud offers.
enum class FirmwareState { kNone, kNew, kDownload, kDownloaded, kFailed };

/// What the upgrade manager works with; what it refers to outlives it.
struct UpgradeSetup {
  comms::CommsManager* comms = nullptr;
  std::filesystem::path storage = "/userdata";  ///< holds ".tmp_upgrade"
  std::filesystem::path key_file{};             ///< see FirmwareCheck
  uint64_t min_free_bytes = 0;
  std::function<std::string()> local_fullversion{};
  std::function<bool()> is_connected{};                         ///< to the cloud
  std::function<std::optional<nlohmann::json>()> ask_record{};  ///< see CatalogueSetup
  std::function<std::shared_ptr<void>()> take_turn{};  ///< at the cloud; null: none is free
  std::function<hal_adapter::HalStatus(const std::string& package)> upgrade{};  ///< blocks
  /// The real path of a file that a client names; nothing for one that it may not.
  std::function<std::optional<std::filesystem::path>(const std::string& path)> resolve{};
  std::function<bool(const std::string& package)> is_running = [](const std::string& package) {
    return IsUpgradeRunning(package);
  };
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// The methods "system.upgrade_check_remote", "system.upgrade_download_firmware" and
/// "system.upgrade": finds out whether there is newer firmware, fetches and checks it, and hands it
/// to the platform. Thread-safe.
class UpgradeManager {
 public:
  explicit UpgradeManager(UpgradeSetup setup);
  /// Ends what can be ended, and waits for the rest.
  ~UpgradeManager();
  UpgradeManager(const UpgradeManager&) = delete;
  UpgradeManager& operator=(const UpgradeManager&) = delete;

  /// Registers the methods and tells the outcome of an upgrade that an earlier run began; the
  /// manager of the methods keeps a reference to this object from then on.
  comms::CommsStatus Start();
  /// Looks once, in the background, as soon as the cloud can be asked, and tells clients.
  void StartCheckRemoteFirmware();

  nlohmann::json ReqCallbackCheckRemote(const nlohmann::json& params);
  nlohmann::json ReqCallbackDownloadFirmware(const nlohmann::json& params);
  nlohmann::json ReqCallbackUpgrade(const nlohmann::json& params);

 private:
  using Json = nlohmann::json;

  /// A package that is about to be flashed.
  struct Package {
    std::filesystem::path file;
    std::optional<FirmwareDescription> description;  ///< of one from the cloud
  };

  template <class Member>
  [[nodiscard]] Member Read(Member UpgradeManager::*member) const;
  /// Follows from the newest offer and what became of it.
  [[nodiscard]] FirmwareState State() const REQUIRES(mutex_);
  /// A firmware or a part of it that must not be removed.
  [[nodiscard]] bool IsInUse(const std::string& fullversion) const REQUIRES(mutex_);

  void Check();
  FirmwareOffer CheckNow() REQUIRES(check_mutex_);
  [[nodiscard]] bool Publish(const FirmwareOffer& offer, uint64_t& changes);
  void RemoveOld(const std::string& offered) REQUIRES(check_mutex_);
  void CheckRemoteFirmware();

  [[nodiscard]] const char* BeginDownload(const std::string& fullversion);
  void EndDownload(const FirmwareDescription& wanted, bool good);
  void Download(const std::string& fullversion);
  [[nodiscard]] FirmwareOffer LookForDownload(const std::string& fullversion);
  [[nodiscard]] DownloadOutcome Fetch(const std::string& fullversion, FirmwareDescription& wanted);

  /// The package, which is in use from then on; nothing: refused.
  [[nodiscard]] std::optional<Package> BeginUpgrade(const Json& params, const char*& refusal);
  [[nodiscard]] std::optional<std::filesystem::path> LocalPackage(const Json& params) const;
  [[nodiscard]] std::shared_ptr<void> Claim();
  [[nodiscard]] const char* PrinterRefusal();
  void Upgrade(const Package& package);
  /// The outcome.
  [[nodiscard]] std::string Flash(const Package& package);
  [[nodiscard]] bool IsStillGood(const Package& package);
  /// As soon as somebody can hear it; false: not before the end.
  [[nodiscard]] bool TellOutcome(const UpgradeRecord& record);
  void ForgetOutcome() const;
  void StartTellingEarlierUpgrade();
  void TellEarlierUpgrade(UpgradeRecord record);

  [[nodiscard]] bool Pause(std::chrono::milliseconds time);
  template <class Body>
  [[nodiscard]] bool StartThread(std::jthread& thread, const char* name, Body body);

  const UpgradeSetup setup_;
  utils::Clock& clock_;
  const FirmwareStore store_;
  FirmwareCheck check_;
  const UpgradeNotifier notifier_;
  RangedDownloader descriptions_;
  RangedDownloader firmware_;
  const FirmwareCatalogue catalogue_;

  std::atomic<bool> stopping_ = false;
  std::atomic<bool> checking_ = false;  ///< in the background
  utils::Mutex check_mutex_;            // one look at a time; held while it talks, before mutex_
  mutable utils::Mutex mutex_;
  utils::Condition wake_;
  FirmwareOffer offer_ GUARDED_BY(mutex_);
  bool failed_ GUARDED_BY(mutex_) = false;            ///< to download or to flash what is offered
  uint64_t looks_ GUARDED_BY(mutex_) = 0;             ///< that have ended
  uint64_t changes_ GUARDED_BY(mutex_) = 0;           ///< of what is there, by others than looks
  std::string fetched_ GUARDED_BY(mutex_);            ///< fullversion that is being downloaded
  std::filesystem::path flashed_ GUARDED_BY(mutex_);  ///< the package of a running upgrade
  bool upgrading_ GUARDED_BY(mutex_) = false;
  utils::Mutex threads_mutex_;
  std::jthread check_thread_ GUARDED_BY(threads_mutex_);
  std::jthread download_thread_ GUARDED_BY(threads_mutex_);
  std::jthread upgrade_thread_ GUARDED_BY(threads_mutex_);  // last: they use the rest
};

}  // namespace varnel::service

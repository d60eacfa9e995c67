#include "service/system/upgrade/upgrade_manager.h"

#include <array>
#include <exception>
#include <system_error>
#include <utility>

#include "comms/json_rpc_message.h"
#include "comms/log_payload.h"
#include "service/system/upgrade/printer_state.h"
#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;
using comms::MakeError;
using comms::RpcError;
using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr uint32_t kFromCloud = 1;
constexpr size_t kLoggedBytes = 1024;
constexpr std::chrono::milliseconds kLook = 2s;

json InvalidParam(const char* message) {
  return MakeError(RpcError::kInvalidParams, message);
}

json Failed(const char* message) {
  return {{"state", "failed"}, {"message", message}};
}

json Success() {
  return {{"state", "success"}};
}

void LogRequest(const json& params) {
  VLOG_INFO(kTag, "receive JSON-RPC message: {}", comms::LogJson(params, kLoggedBytes));
}

}  // namespace

UpgradeManager::UpgradeManager(UpgradeSetup setup)
    : setup_(std::move(setup)),
      clock_(*setup_.clock),
      store_(setup_.storage),
      check_(setup_.key_file, [this] { return stopping_.load(); }),
      notifier_([this](const std::string& method, json params) {
        return setup_.comms->SendNotification("system/notification", method, std::move(params));
      }),
      descriptions_([this] { return stopping_.load(); }, clock_),
      firmware_([this] { return stopping_.load(); }, clock_),
      catalogue_({.http = &descriptions_,
                  .store = &store_,
                  .check = &check_,
                  .is_connected = setup_.is_connected,
                  .ask_record = setup_.ask_record,
                  .local_fullversion = setup_.local_fullversion,
                  .in_use = [this](const std::string& version) { return IsInUse(version); },
                  .pause = [this](std::chrono::milliseconds time) { return Pause(time); }}) {}

UpgradeManager::~UpgradeManager() {
  {
    const utils::MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.NotifyAll();
}

comms::CommsStatus UpgradeManager::Start() {
  using Handler = json (UpgradeManager::*)(const json&);
  using Kind = comms::MethodKind;
  struct Method {
    const char* name;
    Kind kind;
    Handler handler;
  };
  constexpr std::array kMethods{
      Method{"system.upgrade_check_remote", Kind::kNetwork,
             &UpgradeManager::ReqCallbackCheckRemote},
      Method{"system.upgrade_download_firmware", Kind::kCommand,
             &UpgradeManager::ReqCallbackDownloadFirmware},
      Method{"system.upgrade", Kind::kCommand, &UpgradeManager::ReqCallbackUpgrade},
  };
  for (const Method& method : kMethods) {
    const auto status = setup_.comms->RegisterMethod(
        method.name, kFromCloud, method.kind, [this, handler = method.handler](const json& params) {
          LogRequest(params);
          return (this->*handler)(params);
        });
    if (status != comms::CommsStatus::kOk) return status;
  }
  VLOG_INFO(kTag, "Upgrade management initialized via CommsManager.");
  (void)store_.Prepare();
  StartTellingEarlierUpgrade();
  VLOG_INFO(kTag, "UpgradeManager initialization completed.");
  return comms::CommsStatus::kOk;
}

bool UpgradeManager::Pause(std::chrono::milliseconds time) {
  utils::MutexLock lock(mutex_);
  return !clock_.WaitUntil(lock, wake_, clock_.Now() + time, [this] { return stopping_.load(); });
}

template <class Body>
bool UpgradeManager::StartThread(std::jthread& thread, const char* name, Body body) {
  try {
    thread = utils::SpawnGuarded(name, kTag, std::move(body));
    return true;
  } catch (const std::system_error& error) {
    VLOG_ERROR(kTag, "No thread {}: {}", name, error.what());
    return false;
  }
}

FirmwareOffer UpgradeManager::LastOffer() const {
  const utils::MutexLock lock(mutex_);
  return offer_;
}

void UpgradeManager::SetState(FirmwareState state) {
  const utils::MutexLock lock(mutex_);
  state_ = state;
}

bool UpgradeManager::IsInUse(const std::string& fullversion) const {
  const utils::MutexLock lock(mutex_);
  return fetched_ == fullversion || flashed_ == store_.Firmware(fullversion);
}

FirmwareOffer UpgradeManager::CheckNow() {
  FirmwareOffer offer;
  if (store_.Prepare()) offer = catalogue_.Look();
  const utils::MutexLock lock(mutex_);
  offer_ = offer;
  if (offer.good && state_ != FirmwareState::kDownload) {
    state_ = !offer.has_new         ? FirmwareState::kNone
             : offer.has_downloaded ? FirmwareState::kDownloaded
                                    : FirmwareState::kNew;
  }
  return offer;
}

void UpgradeManager::StartCheckRemoteFirmware() {
  if (checking_.exchange(true)) {
    VLOG_WARN(kTag, "Check remote firmware task is already running.");
    return;
  }
  const utils::MutexLock lock(threads_mutex_);
  if (!StartThread(check_thread_, "check-firmware", [this] { CheckRemoteFirmware(); }))
    checking_ = false;
}

void UpgradeManager::CheckRemoteFirmware() {
  VLOG_INFO(kTag, "Check remote firmware task start.");
  while (!setup_.is_connected()) {
    if (!Pause(kLook)) break;
  }
  if (!stopping_) {
    FirmwareOffer offer;
    {
      const utils::MutexLock one(check_mutex_);
      offer = CheckNow();
    }
    VLOG_INFO(kTag, "Check remote firmware result, check new: {}, has new: {}, has downloaded: {}",
              offer.good, offer.has_new, offer.has_downloaded);
    const bool is_downloading = [this] {
      const utils::MutexLock lock(mutex_);
      return state_ == FirmwareState::kDownload;
    }();
    notifier_.Offer(offer, is_downloading);
  }
  VLOG_INFO(kTag, "Check remote firmware task end.");
  checking_ = false;
}

json UpgradeManager::ReqCallbackCheckRemote(const json&) {
  FirmwareOffer offer = LastOffer();
  // Who comes while another one looks, or finds both turns at the cloud taken, gets what was found
  // last: no worker waits for another one's answer.
  if (const auto turn = setup_.take_turn(); turn && check_mutex_.TryLock()) {
    const utils::MutexLock one(check_mutex_, std::adopt_lock);
    offer = CheckNow();
  }
  const utils::MutexLock lock(mutex_);
  return {{"state", offer.good ? "success" : "failed"},
          {"has_new", offer.has_new},
          {"version", offer.description.version},
          {"fullversion", offer.description.fullversion},
          {"size", offer.description.size},
          {"url", offer.url},
          {"has_downloaded", offer.has_downloaded},
          {"is_downloading", state_ == FirmwareState::kDownload},
          {"release_notes", offer.good ? offer.description.release_notes : json(std::string())}};
}

json UpgradeManager::ReqCallbackDownloadFirmware(const json& params) {
  if (!params.is_null() && !params.is_object()) {
    VLOG_ERROR(kTag, "method: system.upgrade_download_firmware, invalid parameter");
    return InvalidParam("Invalid params");
  }
  if (!params.contains("fullversion")) return InvalidParam("Missing required param: fullversion");
  if (!params["fullversion"].is_string()) {
    VLOG_ERROR(kTag, "method: system.upgrade_download_firmware, invalid parameter");
    return InvalidParam("Invalid params");
  }
  const auto fullversion = params["fullversion"].get<std::string>();
  if (const char* refusal = BeginDownload(fullversion)) return Failed(refusal);
  const utils::MutexLock lock(threads_mutex_);
  if (StartThread(download_thread_, "firmware", [this, fullversion] { Download(fullversion); }))
    return Success();
  const utils::MutexLock state(mutex_);
  state_ = FirmwareState::kFailed;
  fetched_.clear();
  return Failed(ReasonOf(DownloadOutcome::kFailed));
}

/// Why it is refused; null: it has begun.
const char* UpgradeManager::BeginDownload(const std::string& fullversion) {
  const bool prepared = store_.Prepare();
  const utils::MutexLock lock(mutex_);
  if (!offer_.good) return "check new version failed";
  if (fullversion != offer_.description.fullversion) {
    VLOG_ERROR(kTag, "Do not support fullversion parameter.");
    return "unsupported fullversion";
  }
  if (upgrading_) return "upgrade is running";
  if (state_ != FirmwareState::kNew && state_ != FirmwareState::kFailed) {
    VLOG_WARN(kTag, "Firmware state is {}, no longer repeat the download process.",
              static_cast<int>(state_));
    return state_ == FirmwareState::kNone       ? "no new version"
           : state_ == FirmwareState::kDownload ? "firmware is being downloaded"
                                                : "firmware is already downloaded";
  }
  if (!prepared) return ReasonOf(DownloadOutcome::kFailed);
  state_ = FirmwareState::kDownload;
  fetched_ = fullversion;
  return nullptr;
}

void UpgradeManager::Download(const std::string& fullversion) {
  DownloadOutcome outcome = DownloadOutcome::kFailed;
  FirmwareDescription wanted{.fullversion = fullversion};
  try {
    outcome = Fetch(wanted);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "The download ends: {}", utils::LogText(error.what()));
  }
  const bool good = outcome == DownloadOutcome::kSuccess;
  {
    const utils::MutexLock lock(mutex_);
    // Another one may be offered by now.
    const bool offered = offer_.description.IsSameFirmware(wanted);
    state_ = !good     ? FirmwareState::kFailed
             : offered ? FirmwareState::kDownloaded
                       : FirmwareState::kNew;
    offer_.has_downloaded = good && offered;
    fetched_.clear();
  }
  (void)notifier_.Outcome(good ? "success" : "failed", ReasonOf(outcome));
}

DownloadOutcome UpgradeManager::Fetch(FirmwareDescription& wanted) {
  const auto look = [this] {
    const utils::MutexLock one(check_mutex_);
    return CheckNow();
  };
  // The addresses may be signed, and old.
  const FirmwareOffer offer = look();
  if (!offer.good || offer.description.fullversion != wanted.fullversion)
    return DownloadOutcome::kOtherVersion;
  wanted = offer.description;
  if (offer.has_downloaded) {
    notifier_.Progress("downloading", 100);
    VLOG_INFO(kTag, "Download completed successfully!");
    return DownloadOutcome::kSuccess;
  }
  int told = -1;
  FirmwareDownload download(
      {.http = &firmware_,
       .store = &store_,
       .check = &check_,
       .min_free_bytes = setup_.min_free_bytes,
       .progress =
           [&](int percent, int64_t received, int64_t size) {
             if (percent == std::exchange(told, percent)) return;
             VLOG_INFO(kTag, "Downloading percent: {}% ({}/{})", percent, received, size);
             notifier_.Progress("downloading", percent);
           },
       .fresh_url = [&]() -> std::optional<std::string> {
         const FirmwareOffer again = look();
         const bool same = again.good && again.description.IsSameFirmware(offer.description);
         return same ? std::optional(again.url) : std::nullopt;
       },
       .stop = [this] { return stopping_.load(); },
       .pause = [this](std::chrono::milliseconds time) { return Pause(time); }},
      offer.description);
  return download.Run(offer.url);
}

json UpgradeManager::ReqCallbackUpgrade(const json& params) {
  const auto invalid = [] {
    VLOG_ERROR(kTag, "method: system.upgrade, invalid parameter");
    return InvalidParam("Invalid params");
  };
  if (!params.is_null() && !params.is_object()) return invalid();
  if (!params.contains("type")) return InvalidParam("Missing required param: type");
  if (!params["type"].is_string()) return invalid();
  if (params["type"] != "local" && params["type"] != "remote")
    return InvalidParam("Invalid 'type' parameter, must be 'local' or 'remote'");
  if (params["type"] == "local" && !params.contains("filepath"))
    return InvalidParam("Missing required param: filepath");
  if (params["type"] == "local" && !params["filepath"].is_string()) return invalid();
  const char* refusal = nullptr;
  const auto package = BeginUpgrade(params, refusal);
  if (!package) return Failed(refusal);
  if (IsPrinting(*setup_.comms)) {
    EndUpgrade();
    return Failed("printer is printing");
  }
  const utils::MutexLock lock(threads_mutex_);
  if (StartThread(upgrade_thread_, "upgrade", [this, package] { Upgrade(*package); }))
    return Success();
  EndUpgrade();
  return Failed("system upgrade failed");
}

std::optional<std::filesystem::path> UpgradeManager::LocalPackage(const json& params) const {
  const auto file = setup_.resolve(params["filepath"].get<std::string>());
  std::error_code error;
  const bool good = file && std::filesystem::is_regular_file(*file, error) &&
                    std::filesystem::file_size(*file, error) > 0 && !error;
  return good ? file : std::nullopt;
}

std::optional<UpgradeManager::Package> UpgradeManager::BeginUpgrade(const json& params,
                                                                    const char*& refusal) {
  const bool is_local = params["type"] == "local";
  const auto local = is_local ? LocalPackage(params) : std::nullopt;
  const utils::MutexLock lock(mutex_);
  refusal = upgrading_                             ? "upgrade is running"
            : is_local && !local                   ? "file not found"
            : is_local                             ? nullptr
            : !offer_.good                         ? "check new version failed"
            : state_ != FirmwareState::kDownloaded ? "firmware has not been downloaded"
                                                   : nullptr;
  if (refusal != nullptr) return std::nullopt;
  Package package =
      is_local ? Package{*local, std::nullopt}
               : Package{store_.Firmware(offer_.description.fullversion), offer_.description};
  upgrading_ = true;
  flashed_ = package.file;
  return package;
}

void UpgradeManager::EndUpgrade() {
  const utils::MutexLock lock(mutex_);
  flashed_.clear();
  upgrading_ = false;
}

void UpgradeManager::Upgrade(const Package& package) {
  const std::shared_ptr<void> at_end(nullptr, [this](void*) { EndUpgrade(); });
  try {
    Flash(package);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "System upgrade failed: {}", utils::LogText(error.what()));
    (void)notifier_.Outcome("failed", "upgrade", "system upgrade failed");
  }
}

void UpgradeManager::Flash(const Package& package) {
  notifier_.Progress("upgrading", 0);
  const bool prepared = store_.Prepare();
  if (package.description &&
      !(prepared && check_.CheckFirmwareFile(package.file, *package.description,
                                             FirmwareCheck::Reading::kAlways))) {
    VLOG_ERROR(kTag, "Downloaded firmware check failed.");
    SetState(FirmwareState::kFailed);
    (void)notifier_.Outcome("failed", ReasonOf(DownloadOutcome::kCheckFailed));
    return;
  }
  UpgradeRecord record{package.file.string(), setup_.local_fullversion(),
                       package.description ? package.description->fullversion : "", ""};
  auto status = hal_adapter::HalStatus::kFailure;
  // Without it the next start would not know that the script runs.
  if (prepared && record.Save(store_.UpgradeRecord())) {
    status = setup_.upgrade(package.file.string());
  } else {
    VLOG_ERROR(kTag, "{} cannot be written", store_.UpgradeRecord().string());
  }
  if (stopping_) return;
  const bool good = status == hal_adapter::HalStatus::kSuccess;
  if (!good) VLOG_ERROR(kTag, "System upgrade failed: {}", hal_adapter::hal_error_string(status));
  record.outcome = good ? "success" : "failed";
  (void)record.Save(store_.UpgradeRecord());
  TellOutcome(record);
}

void UpgradeManager::TellOutcome(const UpgradeRecord& record) {
  const auto tell = [&] {
    if (!setup_.comms->IsLocalConnected()) return false;
    if (record.outcome == "success") return notifier_.Outcome("success", "upgrade");
    if (record.outcome == "failed")
      return notifier_.Outcome("failed", "upgrade", "system upgrade failed");
    return notifier_.Outcome("warning", "upgrade", "upgrade result is unknown");
  };
  while (!tell()) {
    if (!Pause(kLook)) return;
  }
  if (record.outcome == "success") {
    VLOG_INFO(kTag, "Send notify_system_upgrade done, upgrade filepath = {}",
              utils::LogText(record.package));
  }
  std::error_code error;
  std::filesystem::remove(store_.UpgradeRecord(), error);
  if (!error) error = utils::SyncDirectory(store_.Directory());
  if (error) VLOG_WARN(kTag, "This outcome may be told again: {}", error.message());
}

/// There may be a script that runs, with a record or without one.
void UpgradeManager::StartTellingEarlierUpgrade() {
  const auto record = UpgradeRecord::Load(store_.UpgradeRecord());
  if (!record && !setup_.is_running("")) return;
  {
    const utils::MutexLock lock(mutex_);
    upgrading_ = true;
    if (record) flashed_ = record->package;
  }
  const utils::MutexLock threads(threads_mutex_);
  if (!StartThread(upgrade_thread_, "upgrade-outcome",
                   [this, told = record.value_or(UpgradeRecord())] { TellEarlierUpgrade(told); }))
    EndUpgrade();
}

void UpgradeManager::TellEarlierUpgrade(UpgradeRecord record) {
  const std::shared_ptr<void> at_end(nullptr, [this](void*) { EndUpgrade(); });
  while (setup_.is_running(record.package)) {
    if (!Pause(kLook)) return;
  }
  if (record.package.empty()) return;
  if (record.outcome.empty() && record.HasSucceeded(setup_.local_fullversion()))
    record.outcome = "success";
  TellOutcome(record);
}

}  // namespace varnel::service

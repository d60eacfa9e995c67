#include "service/system/upgrade/upgrade_manager.h"

#include <array>
#include <exception>
#include <system_error>
#include <utility>

#include "comms/log_payload.h"
#include "service/system/upgrade/printer_state.h"
#include "service/system/upgrade/upgrade_requests.h"
#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr const char* kUpgradeFailed = "system upgrade failed";
constexpr uint32_t kFromCloud = 1;
constexpr size_t kLoggedBytes = 1024;
constexpr std::chrono::milliseconds kLook = 2s;

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
                  .pause = [this](std::chrono::milliseconds time) { return Pause(time); },
                  .clock = &clock_}) {}

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
  } catch (const std::exception& error) {  // no memory, or no thread left
    VLOG_ERROR(kTag, "No thread {}: {}", name, error.what());
    return false;
  }
}

FirmwareState UpgradeManager::State() const {
  if (!fetched_.empty()) return FirmwareState::kDownload;
  if (!offer_.has_new) return FirmwareState::kNone;
  if (offer_.has_downloaded) return FirmwareState::kDownloaded;
  return failed_ ? FirmwareState::kFailed : FirmwareState::kNew;
}

bool UpgradeManager::IsInUse(const std::string& fullversion) const {
  return fetched_ == fullversion || flashed_ == store_.Firmware(fullversion);
}

template <class Member>
Member UpgradeManager::Read(Member UpgradeManager::*member) const {
  const utils::MutexLock lock(mutex_);
  return this->*member;
}

FirmwareOffer UpgradeManager::CheckNow() {
  uint64_t changes = Read(&UpgradeManager::changes_);
  FirmwareOffer offer;
  if (store_.Prepare()) offer = catalogue_.Look();
  while (!Publish(offer, changes)) catalogue_.FindDownloaded(offer);
  // At the end what was not read to its end is not bad.
  if (offer.good && !stopping_) RemoveOld(offer.description.fullversion);
  return offer;
}

/// False: what is there has changed since, and has to be looked at again.
bool UpgradeManager::Publish(const FirmwareOffer& offer, uint64_t& changes) {
  const utils::MutexLock lock(mutex_);
  if (offer.good && std::exchange(changes, changes_) != changes_) return false;
  offer_ = offer;
  failed_ = false;
  ++looks_;
  return true;
}

/// After the offer was published: by now nobody is let begin with what goes here, and downloads
/// wait for the look to end.
void UpgradeManager::RemoveOld(const std::string& offered) {
  bool is_free = false;
  bool is_here = false;
  bool is_ours = false;
  {
    const utils::MutexLock lock(mutex_);
    is_free = !IsInUse(offered);
    is_here = offer_.has_downloaded;
    is_ours = !offer_.has_new;
  }
  if (is_free && !is_here) store_.RemoveFirmware(offered);
  if (is_free && (is_here || is_ours)) store_.RemovePart(offered);
  store_.RemoveOthers(offered, [this](const std::string& version) {
    const utils::MutexLock lock(mutex_);
    return IsInUse(version);
  });
}

/// Who comes while another one looks waits for what that finds.
void UpgradeManager::Check() {
  const uint64_t seen = Read(&UpgradeManager::looks_);
  const utils::MutexLock one(check_mutex_);
  if (Read(&UpgradeManager::looks_) == seen) (void)CheckNow();
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
  const std::shared_ptr<void> at_end(nullptr, [this](void*) { checking_ = false; });
  VLOG_INFO(kTag, "Check remote firmware task start.");
  while (!setup_.is_connected()) {
    if (!Pause(kLook)) break;
  }
  if (!stopping_) {
    Check();
    const FirmwareOffer offer = Read(&UpgradeManager::offer_);
    VLOG_INFO(kTag, "Check remote firmware result, check new: {}, has new: {}, has downloaded: {}",
              offer.good, offer.has_new, offer.has_downloaded);
    notifier_.Offer(offer, !Read(&UpgradeManager::fetched_).empty());
  }
  VLOG_INFO(kTag, "Check remote firmware task end.");
}

json UpgradeManager::ReqCallbackCheckRemote(const json&) {
  // Who finds both turns at the cloud taken gets what was found last: no third worker waits.
  if (const auto turn = setup_.take_turn()) Check();
  const utils::MutexLock lock(mutex_);
  return AnswerOf(offer_, !fetched_.empty());
}

json UpgradeManager::ReqCallbackDownloadFirmware(const json& params) {
  if (auto error = ErrorInDownload(params)) return *std::move(error);
  auto fullversion = params["fullversion"].get<std::string>();
  if (const char* refusal = BeginDownload(fullversion)) return Failed(refusal);
  const utils::MutexLock lock(threads_mutex_);
  if (StartThread(download_thread_, "firmware",
                  [this, version = std::move(fullversion)] { Download(version); }))
    return Success();
  EndDownload({}, false);
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
  if (const auto state = State(); state != FirmwareState::kNew && state != FirmwareState::kFailed) {
    VLOG_WARN(kTag, "Firmware state is {}, no longer repeat the download process.",
              static_cast<int>(state));
    return state == FirmwareState::kNone       ? "no new version"
           : state == FirmwareState::kDownload ? "firmware is being downloaded"
                                               : "firmware is already downloaded";
  }
  if (!prepared) return ReasonOf(DownloadOutcome::kFailed);
  fetched_ = fullversion;
  return nullptr;
}

void UpgradeManager::EndDownload(const FirmwareDescription& wanted, bool good) {
  const utils::MutexLock lock(mutex_);
  // Another one may be offered by now.
  const bool is_offered = offer_.description.IsSameFirmware(wanted);
  if (is_offered && good) offer_.has_downloaded = true;
  failed_ = is_offered && !good;
  fetched_.clear();
  ++changes_;
}

void UpgradeManager::Download(const std::string& fullversion) {
  DownloadOutcome outcome = DownloadOutcome::kFailed;
  FirmwareDescription wanted;
  try {
    outcome = Fetch(fullversion, wanted);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "The download ends: {}", utils::LogText(error.what()));
  }
  const bool good = outcome == DownloadOutcome::kSuccess;
  EndDownload(wanted, good);
  (void)notifier_.Outcome(good ? "success" : "failed", ReasonOf(outcome));
}

/// The addresses may be signed, and old.
FirmwareOffer UpgradeManager::LookForDownload(const std::string& fullversion) {
  const utils::MutexLock one(check_mutex_);
  FirmwareOffer offer = CheckNow();
  // What is not good would take up room, and who still reads it later might take the new one for
  // it. Other looks leave it to its download.
  const bool is_wanted = offer.good && offer.description.fullversion == fullversion;
  if (is_wanted && !offer.has_downloaded && !stopping_) store_.RemoveFirmware(fullversion);
  return offer;
}

DownloadOutcome UpgradeManager::Fetch(const std::string& fullversion, FirmwareDescription& wanted) {
  const FirmwareOffer offer = LookForDownload(fullversion);
  if (!offer.good || offer.description.fullversion != fullversion)
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
         const FirmwareOffer again = LookForDownload(fullversion);
         const bool same = again.good && again.description.IsSameFirmware(offer.description);
         return same ? std::optional(again.url) : std::nullopt;
       },
       .stop = [this] { return stopping_.load(); },
       .pause = [this](std::chrono::milliseconds time) { return Pause(time); }},
      offer.description);
  return download.Run(offer.url);
}

json UpgradeManager::ReqCallbackUpgrade(const json& params) {
  if (auto error = ErrorInUpgrade(params)) return *std::move(error);
  const char* refusal = nullptr;
  auto package = BeginUpgrade(params, refusal);
  if (!package) return Failed(refusal);
  auto claim = Claim();
  refusal = PrinterRefusal();
  if (refusal != nullptr) return Failed(refusal);
  const utils::MutexLock lock(threads_mutex_);
  const bool begun = StartThread(
      upgrade_thread_, "upgrade",
      [this, package = *std::move(package), claim = std::move(claim)] { Upgrade(package); });
  return begun ? Success() : Failed(kUpgradeFailed);
}

/// Of the upgrade that has begun: ends it.
std::shared_ptr<void> UpgradeManager::Claim() {
  return {nullptr, [this](void*) {
            const utils::MutexLock lock(mutex_);
            flashed_.clear();
            upgrading_ = false;
          }};
}

const char* UpgradeManager::PrinterRefusal() {
  return service::PrinterRefusal(*setup_.comms, clock_,
                                 [this](std::chrono::milliseconds time) { return Pause(time); });
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
  refusal = upgrading_                              ? "upgrade is running"
            : is_local && !local                    ? "file not found"
            : is_local                              ? nullptr
            : !offer_.good                          ? "check new version failed"
            : State() != FirmwareState::kDownloaded ? "firmware has not been downloaded"
                                                    : nullptr;
  if (refusal != nullptr) return std::nullopt;
  Package package =
      is_local ? Package{*local, std::nullopt}
               : Package{store_.Firmware(offer_.description.fullversion), offer_.description};
  flashed_ = package.file;
  upgrading_ = true;  // last: nothing fails from here on
  return package;
}

void UpgradeManager::Upgrade(const Package& package) {
  UpgradeRecord record;
  bool recorded = false;
  try {
    record = {package.file.string(), setup_.local_fullversion(),
              package.description ? package.description->fullversion : "", ""};
    notifier_.Progress("upgrading", 0);
    // From now on the next start tells the outcome if this one cannot.
    recorded = store_.Prepare() && record.Save(store_.UpgradeRecord());
    if (!recorded) VLOG_ERROR(kTag, "{} cannot be written", store_.UpgradeRecord().string());
    std::string outcome = recorded ? Flash(package) : kUpgradeFailed;
    if (stopping_) return;
    record.outcome = std::move(outcome);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "System upgrade failed: {}", utils::LogText(error.what()));
    record.outcome = kUpgradeFailed;
  }
  if (recorded) (void)record.Save(store_.UpgradeRecord());
  if (TellOutcome(record) && recorded) ForgetOutcome();
}

std::string UpgradeManager::Flash(const Package& package) {
  if (package.description) {
    if (!IsStillGood(package)) return ReasonOf(DownloadOutcome::kCheckFailed);
    // A print may have begun while the package was read.
    if (const char* refusal = PrinterRefusal()) return refusal;
  }
  const auto status = setup_.upgrade(package.file.string());
  if (status == hal_adapter::HalStatus::kSuccess) return "success";
  VLOG_ERROR(kTag, "System upgrade failed: {}", hal_adapter::hal_error_string(status));
  return kUpgradeFailed;
}

bool UpgradeManager::IsStillGood(const Package& package) {
  if (check_.CheckFirmwareFile(package.file, *package.description, FirmwareCheck::Reading::kAlways))
    return true;
  VLOG_ERROR(kTag, "Downloaded firmware check failed.");
  const utils::MutexLock lock(mutex_);
  ++changes_;
  if (offer_.description.IsSameFirmware(*package.description)) {
    offer_.has_downloaded = false;
    failed_ = true;
  }
  return false;
}

bool UpgradeManager::TellOutcome(const UpgradeRecord& record) {
  while (!setup_.comms->IsLocalConnected() || !notifier_.Ended(record.outcome)) {
    if (!Pause(kLook)) return false;
  }
  if (record.outcome == "success") {
    VLOG_INFO(kTag, "Send notify_system_upgrade done, upgrade filepath = {}",
              utils::LogText(record.package));
  }
  return true;
}

void UpgradeManager::ForgetOutcome() const {
  std::error_code error;
  std::filesystem::remove(store_.UpgradeRecord(), error);
  if (!error) error = utils::SyncDirectory(store_.Directory());
  if (error) VLOG_WARN(kTag, "This outcome may be told again: {}", error.message());
}

/// There may be a script that runs, with a record or without one.
void UpgradeManager::StartTellingEarlierUpgrade() {
  const auto record = store_.Prepare() ? UpgradeRecord::Load(store_.UpgradeRecord()) : std::nullopt;
  if (!record && !setup_.is_running("")) return;
  {
    const utils::MutexLock lock(mutex_);
    if (record) flashed_ = record->package;
    upgrading_ = true;
  }
  auto claim = Claim();
  const utils::MutexLock threads(threads_mutex_);
  (void)StartThread(upgrade_thread_, "upgrade-outcome",
                    [this, told = record.value_or(UpgradeRecord()), claim = std::move(claim)] {
                      TellEarlierUpgrade(told);
                    });
}

void UpgradeManager::TellEarlierUpgrade(UpgradeRecord record) {
  while (setup_.is_running(record.package)) {
    if (!Pause(kLook)) return;
  }
  if (record.package.empty()) return;
  record.outcome = record.OutcomeAt(setup_.local_fullversion());
  if (TellOutcome(record)) ForgetOutcome();
}

}  // namespace varnel::service

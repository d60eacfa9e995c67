#include "service/system/export/log_export.h"

#include <chrono>
#include <climits>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "hal_interface/hal_register.h"
#include "service/system/collection/sysinfo_collector.h"
#include "service/system/export/export_instruction.h"
#include "service/system/export/mounted_drive.h"
#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using utils::HeldDirectory;
using namespace std::chrono_literals;

constexpr const char* kTag = "COLLM";
constexpr const char* kMethod = "notify_export_log";
/// More drives than a hand can plug in while one is looked at.
constexpr size_t kMaxWaiting = 8;
/// Names differ by the second.
constexpr int kNames = 10;
constexpr std::chrono::milliseconds kNextName = 1s;

/// As long as the event's text.
std::string Shown(const fs::path& directory) {
  return utils::LogText(directory.string(), sizeof hal_adapter::HalEventRecord::payload);
}

CollectionOrder Everything(bool encrypt, const ExportNames& names) {
  return {.basic = true,
          .network = true,
          .logs = true,
          .ai_detect = true,
          .coredump = true,
          .encrypt = encrypt,
          .archive_name = names.Archive()};
}

void Require(const std::error_code& error) {
  if (error) throw std::runtime_error(error.message());
}

json Failed(const std::string& reason) {
  VLOG_ERROR(kTag, "Export failed: {}", utils::LogText(reason));
  return {{"state", "failed"}, {"reason", reason}};
}

}  // namespace

LogExport::~LogExport() {
  stopping_ = true;
}

void LogExport::Start() {
  // It refuses no function that there is.
  (void)hal_adapter::register_hal_event_callback(hal_adapter::HAL_EVENT_SYS_USB_DRIVE_INSERT,
                                                 Report, this);
  VLOG_INFO(kTag, "Registered HAL event: HAL_EVENT_SYS_USB_DRIVE_INSERT");
}

void LogExport::Report(const hal_adapter::HalEventRecord* event, void* self) {
  const fs::path directory = event->payload;
  VLOG_INFO(kTag, "USB drive inserted event received, mount_point: {}", Shown(directory));
  static_cast<LogExport*>(self)->Enqueue(directory);
}

void LogExport::Enqueue(const fs::path& directory) {
  if (looking_.QueueSize() >= kMaxWaiting) {
    VLOG_WARN(kTag, "Too many drives wait, {} is not looked at", Shown(directory));
    return;
  }
  looking_.Post([this, directory] { Look(directory); });
}

void LogExport::Look(const fs::path& directory) try {
  if (IsStopping()) return;
  setup_.settle();
  auto drive = OpenMountedDrive(directory);
  if (!drive) {
    VLOG_WARN(kTag, "No export to {}: {}", Shown(directory), drive.Why());
    return;
  }
  if (!AsksForExport(*drive, *setup_.collection->Collecting().clock)) return;
  VLOG_INFO(kTag, "export_log.json: exporting logs to {}", Shown(directory));
  Begin(std::move(*drive));
} catch (const std::exception& error) {
  VLOG_ERROR(kTag, "Export failed: {}", utils::LogText(error.what()));
}

void LogExport::Begin(HeldDirectory drive) {
  auto turn = setup_.collection->TakeTurn();
  if (!turn) {
    VLOG_WARN(kTag, "Export already in progress, skipping");
    return;
  }
  exporting_ = {};  // the last one has given its turn back, and has only to tell
  exporting_ = utils::SpawnGuarded(
      "export", kTag, [this, taken = std::move(turn), held = std::move(drive)]() mutable {
        Export(std::move(held), std::move(taken));
      });
}

/// Whoever is told can unmount the drive, or ask for the next collection.
void LogExport::Export(HeldDirectory drive, std::shared_ptr<void> turn) {
  Tell({{"state", "started"}});
  std::optional<HeldDirectory> held(std::move(drive));
  json outcome = Outcome(*held);
  held.reset();
  turn.reset();
  Tell(std::move(outcome));
}

json LogExport::Outcome(const HeldDirectory& drive) const {
  std::string reason;
  try {
    return WriteOnto(drive);
  } catch (const std::exception& error) {
    reason = error.what();
  }
  return Failed(drive.IsStillThere() ? reason : "the drive was pulled out: " + reason);
}

json LogExport::WriteOnto(const HeldDirectory& drive) const {
  const auto stopped = [this, &drive] { return IsStopping() || !drive.IsStillThere(); };
  const DriveWriter writer(drive, stopped);
  Require(writer.Try());  // before minutes are spent
  const auto names = FreeNames(writer);
  if (!names) throw std::runtime_error("the names for the archive are taken");
  SysinfoCollector collector(setup_.collection->Collecting(), Everything(setup_.encrypt, *names),
                             stopped);
  const auto archive = collector.Collect();
  if (!archive) throw std::runtime_error(archive.Why());
  const uint64_t bytes = fs::file_size(*archive);
  Require(writer.Write(*archive, *names));
  const std::string path = drive.Path() / names->Archive();
  VLOG_INFO(kTag, "Exported {} bytes to {}", bytes, utils::LogText(path, PATH_MAX));
  return {
      {"state", "completed"}, {"filepath", path}, {"filesize", bytes}, {"safe_to_remove", true}};
}

std::optional<ExportNames> LogExport::FreeNames(const DriveWriter& writer) const {
  utils::Clock& clock = *setup_.collection->Collecting().clock;
  for (int i = 0; i < kNames && !IsStopping(); ++i) {
    if (i > 0) clock.SleepFor(kNextName);
    const auto now = std::chrono::system_clock::to_time_t(clock.WallNow());
    ExportNames names{"LOGS_MAINTENANCE_" + utils::LocalTimeDigits(now).value_or("0")};
    if (writer.IsFree(names)) return names;
  }
  return std::nullopt;
}

void LogExport::Tell(json params) const {
  const comms::CommsStatus status = setup_.notify(kMethod, std::move(params));
  if (status != comms::CommsStatus::kOk)
    VLOG_ERROR(kTag, "Send {} error, ret is {}", kMethod, comms::Code(status));
}

}  // namespace varnel::service

#include "service/camera/monitor/monitor_task.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kTag = "MON";
/// After so many photos in a row that failed the last one is no picture of now.
constexpr int kFailedPhotos = 3;
/// Between two photos when the first one failed, so that a missing camera costs next to nothing.
constexpr seconds kFailurePause{1};
/// Between an upload that failed and the next one.
constexpr seconds kUploadPause{5};
/// So long a local viewer's picture stands still for an upload in which nothing moves.
constexpr seconds kUploadPatience{10};
constexpr std::chrono::minutes kTellPeriod{1};

}  // namespace

MonitorTask::MonitorTask(const Tools& tools)
    : tools_(tools), thread_(utils::SpawnGuarded("monitor", kTag, [this] { Run(); })) {}

MonitorTask::~MonitorTask() {
  tools_.switches.RequestEnd();
  thread_.join();
}

void MonitorTask::Run() {
  while (tools_.switches.AwaitOn()) {
    try {
      Watch();
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "Capture task failed: {}", error.what());
      tools_.switches.Pause(tools_.clock.Now() + kFailurePause);
    }
  }
}

void MonitorTask::TellStatus(json params) const {
  params["timestamp"] = utils::LocalTimeText(tools_.clock.WallNow());
  tools_.notify("notify_camera_status_change", std::move(params));
}

void MonitorTask::Watch() {
  VLOG_INFO(kTag, "Capture task start.");
  // Clients know this domain from here, whichever was started.
  TellStatus({{"monitoring", true}, {"monitor_domain", NameOf(MonitorDomain::kLan)}});
  failed_photos_ = 0;
  failed_upload_.reset();
  figures_ = {};
  while (const auto round = tools_.switches.NextRound()) {
    if (round->remaining_s)
      tools_.notify("notify_camera_monitoring_to_stop", {{"remain", *round->remaining_s}});
    tools_.switches.Pause(DoRound(*round));
  }
  tools_.files.Clear();
  const MonitorSwitches::End end = tools_.switches.LastEnd();
  TellStatus({{"monitoring", false},
              {"monitor_domain", NameOf(end.domain)},
              {"reason", end.expired ? "expired" : "stopped"}});
  VLOG_INFO(kTag, "Capture task exit.");
}

/// When the next one is to begin.
MonitorTask::TimePoint MonitorTask::DoRound(const Round& round) {
  const auto begin = tools_.clock.Now();
  const bool taken = TakePicture(round);
  const auto end = tools_.clock.Now();
  TellTime(round, std::chrono::duration_cast<milliseconds>(end - begin));
  TimePoint next = begin + round.interval;
  if (!taken) next = std::max(next, end + kFailurePause);
  // Nobody else sees the pictures meanwhile.
  if (failed_upload_ && !round.on.lan) next = std::max(next, *failed_upload_ + kUploadPause);
  return next;
}

/// Takes a photo and delivers it. False when there is none.
bool MonitorTask::TakePicture(const Round& round) {
  const auto status = tools_.camera.TakePhoto(tools_.files.Paths().snapshot.string());
  if (status == hal_adapter::PhotoStatus::kSuccess) {
    failed_photos_ = 0;
    Deliver(round);
    return true;
  }
  if (++failed_photos_ == kFailedPhotos) tools_.files.Clear();
  return false;
}

void MonitorTask::Deliver(const Round& round) {
  const bool encrypted = Encrypt(round);
  // As it is by now: whoever stopped has had the link removed.
  if (tools_.switches.Domains().lan) {
    tools_.files.Publish();
  } else {
    tools_.files.Withdraw();
  }
  if (encrypted && round.on.wan) Upload(round);
}

bool MonitorTask::Encrypt(const Round& round) const try {
  const MonitorPaths& paths = tools_.files.Paths();
  round.crypto->EncryptFile(paths.snapshot, paths.encrypted);
  return true;
} catch (const std::runtime_error& error) {
  VLOG_ERROR(kTag, "Encrypt file error: {}", error.what());
  return false;
}

void MonitorTask::Upload(const Round& round) {
  // A start has just got through.
  if (round.started) failed_upload_.reset();
  if (failed_upload_ && tools_.clock.Now() - *failed_upload_ < kUploadPause) return;
  failed_upload_.reset();
  const auto stop = [&] { return !tools_.switches.MayUpload(round); };
  if (stop()) return;
  const seconds patience = round.on.lan ? kUploadPatience : seconds(0);
  if (!tools_.upload.SendNext(tools_.files.Paths().encrypted, stop, patience))
    failed_upload_ = tools_.clock.Now();
}

/// At each round, but in the log that is kept once a minute: who watches for days must not push out
/// all else.
void MonitorTask::TellTime(const Round& round, milliseconds time) {
  ++figures_.rounds;
  figures_.total_ms += time.count();
  const auto now = tools_.clock.Now();
  const bool kept = !figures_.told || now - *figures_.told >= kTellPeriod;
  if (kept) figures_.told = now;
  const auto level = kept ? spdlog::level::info : spdlog::level::debug;
  VLOG_AT(level, kTag, "The time consumption for THIS capturing image and uploading is {} ms.",
          time.count());
  VLOG_AT(
      level, kTag, "The average time consumption for {} capturing image and uploading is {} ms {}.",
      figures_.rounds, figures_.total_ms / static_cast<int64_t>(figures_.rounds), round.on.Text());
}

}  // namespace varnel::service

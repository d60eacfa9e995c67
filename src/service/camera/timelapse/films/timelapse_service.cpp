#include "service/camera/timelapse/films/timelapse_service.h"

#include <system_error>
#include <utility>
#include <vector>

#include "utils/directory_entries.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/temporary_name.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "CAMSRV";

/// Files that an interruption left in a directory of ours.
void RemoveMatching(const fs::path& directory, std::string_view part) {
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(directory, error)) {
    if (entry.path().filename().string().find(part) == std::string::npos) continue;
    std::error_code ignored;
    fs::remove(entry.path(), ignored);
  }
}

}  // namespace

TimelapseService::TimelapseService(TimelapsePaths paths, EncoderPrograms programs,
                                   Recorder::TakePhotoTo take_photo, NotifyClients notify,
                                   std::unique_ptr<FileUploader> uploader, utils::Clock& clock)
    : paths_(std::move(paths)),
      programs_(std::move(programs)),
      take_photo_(std::move(take_photo)),
      uploader_(std::move(uploader)),
      encoder_(programs_),
      segments_(encoder_),
      store_(paths_, clock),
      finisher_(encoder_, segments_, store_, std::move(notify), clock, paths_.min_free_bytes),
      root_(paths_, clock),
      films_(finisher_) {}

void TimelapseService::RemoveTemporaryNames() const {
  utils::RemoveLeftovers(paths_.root);
  utils::RemoveLeftovers(paths_.web);
  RemoveMatching(paths_.upload, "_timelapse_enc");
}

void TimelapseService::HandleUnfinished() {
  VLOG_INFO(kTag, "Handle unfinished timelapse instance");
  try {
    const std::lock_guard lock(command_mutex_);
    RemoveTemporaryNames();
    store_.CompleteDeletions();
    store_.RepairLinks();
    root_.RemoveHalfMade();
    const std::vector<std::string> indices = root_.Indices();
    if (indices.empty())
      VLOG_INFO(kTag, "Handle unfinished timelapse: no need to handle empty directory");
    for (const std::string& index : indices) HandleLeftBehind(index);
  } catch (const fs::filesystem_error& error) {
    VLOG_ERROR(kTag, "Handle unfinished timelapse: filesystem error: {}",
               utils::LogText(error.what()));
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Handle unfinished timelapse: general error: {}",
               utils::LogText(error.what()));
  }
}

void TimelapseService::HandleLeftBehind(const std::string& index) {
  TimelapseState state = TimelapseState::kInitial;
  const bool known = ReadTimelapseState(paths_.root / index, state) == StateRecord::kFound;
  if (known) WorkDirectory(paths_.root / index, {}, state).RemoveHalfWritten();
  if (known && state == TimelapseState::kGenerating) {
    VLOG_INFO(kTag, "Handle timelapse instance {}, and it will be completed shortly.", index);
    if (auto instance = root_.Open(index)) films_.Add(std::move(instance));
    return;
  }
  VLOG_INFO(kTag, "Do not need to handle timelapse instance {}.", index);
  if (known && state == TimelapseState::kFinished)
    WorkDirectory(paths_.root / index, {}, state).RemoveTemporaryFiles();
}

std::shared_ptr<Recorder> TimelapseService::Current() const {
  const std::lock_guard lock(current_mutex_);
  return current_;
}

bool TimelapseService::Begin(std::shared_ptr<WorkDirectory> instance, bool continued) {
  if (!instance) return false;
  auto timelapse = std::make_shared<Recorder>(std::move(instance), take_photo_, segments_);
  const bool started = timelapse->Start(continued);
  if (!started && continued) return false;
  const std::lock_guard lock(current_mutex_);
  current_ = std::move(timelapse);
  return started;
}

bool TimelapseService::StartNew(const TimelapseSettings& settings) {
  const std::lock_guard lock(command_mutex_);
  Retire();
  root_.RemoveUnfinished();
  return Begin(root_.Create(settings), false);
}

void TimelapseService::Retire() {
  std::shared_ptr<Recorder> previous;
  {
    const std::lock_guard lock(current_mutex_);
    previous = std::exchange(current_, nullptr);
  }
  if (!previous) return;
  previous->Abandon();
  films_.Retire(std::move(previous));
}

bool TimelapseService::Continue() {
  const std::lock_guard lock(command_mutex_);
  const std::string index = root_.NextIndex();
  const auto current = Current();
  const bool goes_on = current && current->Instance().Index() == index &&
                       current->State() == TimelapseState::kActivated;
  if (goes_on) return true;
  return Begin(root_.Open(index), true);
}

TimelapseService::StopResult TimelapseService::Stop() {
  const std::lock_guard lock(command_mutex_);
  auto current = Current();
  if (!current || current->State() == TimelapseState::kFinished) return StopResult::kNothingRuns;
  if (!current->Stop()) return StopResult::kRefused;
  films_.Add(std::move(current));
  return StopResult::kStopped;
}

std::optional<TimelapsePhoto> TimelapseService::TakePhoto() {
  const auto current = Current();
  if (!current) return std::nullopt;
  return current->TakePhoto();
}

bool TimelapseService::IsRunning() const {
  const auto current = Current();
  return current && current->State() != TimelapseState::kFinished &&
         !films_.HasFailed(current->Instance().Index());
}

hal_adapter::HalStatus TimelapseService::Upload(const std::string& index, const std::string& type,
                                                UploadedFilm& film) {
  return UploadFilm(paths_, store_, *uploader_, index, type, film);
}

}  // namespace varnel::service

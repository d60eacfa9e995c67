#include "service/camera/timelapse/films/timelapse_service.h"

#include <system_error>
#include <utility>
#include <vector>

#include "utils/directory_entries.h"
#include "utils/free_space.h"
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

TimelapseService::TimelapseService(TimelapseSetup setup)
    : paths_(std::move(setup.paths)),
      camera_(*setup.camera),
      uploader_(std::move(setup.uploader)),
      ffmpeg_(std::move(setup.programs), paths_.min_free_bytes),
      store_(paths_, *setup.clock),
      uploads_(paths_, store_, *uploader_),
      directories_(paths_, *setup.clock),
      maker_(ffmpeg_, store_, std::move(setup.notify), *setup.clock),
      worker_(paths_, directories_, store_, ffmpeg_, maker_, std::move(setup.broker_answers),
              *setup.clock) {}

void TimelapseService::ClearTemporaryNames() const {
  utils::RemoveLeftovers(paths_.root);
  utils::RemoveLeftovers(paths_.web);
  RemoveMatching(paths_.upload, "_timelapse_enc");
  std::error_code error;
  if (fs::is_symlink(paths_.Current(), error) && !fs::exists(paths_.Current(), error))
    fs::remove(paths_.Current(), error);
}

void TimelapseService::HandleUnfinished() {
  VLOG_INFO(kTag, "Handle unfinished timelapse instance");
  try {
    ClearTemporaryNames();
    store_.CompleteDeletions();
    store_.RepairLinks();
    directories_.SetAsideHalfMade();
    const std::vector<std::string> indices = directories_.Indices();
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
  worker_.Start();
}

void TimelapseService::HandleLeftBehind(const std::string& index) const {
  TimelapseState state = TimelapseState::kInitial;
  const bool known = ReadTimelapseState(paths_.root / index, state) == StateRecord::kFound;
  if (known) WorkDirectory(paths_.root / index, {}, state).RemoveHalfWritten();
  if (known && state == TimelapseState::kGenerating) {
    VLOG_INFO(kTag, "Handle timelapse instance {}, and it will be completed shortly.", index);
  } else {
    VLOG_INFO(kTag, "Do not need to handle timelapse instance {}.", index);
  }
}

std::shared_ptr<Recorder> TimelapseService::Current() const {
  const utils::MutexLock lock(current_mutex_);
  return current_;
}

bool TimelapseService::Begin(std::shared_ptr<WorkDirectory> directory, bool continued) {
  if (!directory) return false;
  const std::string index = directory->Index();
  auto recorder = std::make_shared<Recorder>(std::move(directory), camera_);
  if (!recorder->Start(continued)) {
    if (!continued) (void)directories_.SetAside(index);
    return false;
  }
  const utils::MutexLock lock(current_mutex_);
  current_ = std::move(recorder);
  return true;
}

void TimelapseService::Retire() {
  std::shared_ptr<Recorder> previous;
  {
    const utils::MutexLock lock(current_mutex_);
    previous = std::exchange(current_, nullptr);
  }
  if (previous) {
    if (previous->StopWasAsked() && previous->State() == TimelapseState::kActivated)
      stops_wanted_.insert(previous->Directory().Index());
    previous->Close();
  }
  RepeatStops();
  directories_.SetAsideUnfinished(stops_wanted_);
}

/// A film that was wanted is made, whatever kept its stop from being recorded.
void TimelapseService::RepeatStops() {
  std::erase_if(stops_wanted_, [this](const std::string& index) {
    const auto directory = directories_.Open(index);
    return !directory || directory->State() != TimelapseState::kActivated ||
           directory->Advance(TimelapseState::kGenerating);
  });
}

void TimelapseService::MakeRoomForNew() {
  {
    const utils::MutexLock lock(command_mutex_);
    Retire();
  }
  // The worker removes what was set aside; only a print that needs its room waits for that.
  if (!utils::EnoughFreeSpace(paths_.root, paths_.min_free_bytes)) directories_.RemoveSetAside();
}

bool TimelapseService::StartNew(const TimelapseSettings& settings) {
  MakeRoomForNew();
  const std::string index = directories_.Build(settings);
  bool begun = false;
  {
    const utils::MutexLock lock(command_mutex_);
    Retire();  // another one may have begun meanwhile
    begun = !index.empty() && Begin(directories_.Publish(index, settings), false);
  }
  worker_.TryAgain();  // what was set aside gives room
  return begun;
}

bool TimelapseService::Continue() {
  const utils::MutexLock lock(command_mutex_);
  const std::string index = directories_.NextIndex();
  const auto current = Current();
  const bool goes_on = current && current->Directory().Index() == index &&
                       current->State() == TimelapseState::kActivated;
  if (goes_on) return true;
  if (!Begin(directories_.Open(index), true)) return false;
  directories_.PointCurrentAt(index);
  worker_.Wake();
  return true;
}

TimelapseService::StopResult TimelapseService::Stop() {
  {
    const utils::MutexLock lock(command_mutex_);
    const auto current = Current();
    if (!current || current->State() == TimelapseState::kFinished) return StopResult::kNothingRuns;
    if (!current->Stop()) return StopResult::kRefused;
  }
  worker_.Wake();
  return StopResult::kStopped;
}

std::optional<TimelapsePhoto> TimelapseService::TakePhoto() {
  const auto current = Current();
  if (!current) return std::nullopt;
  const TimelapsePhoto photo = current->TakePhoto();
  if (photo == TimelapsePhoto::kTaken) worker_.PhotoTaken();
  return photo;
}

bool TimelapseService::IsRunning() const {
  const auto current = Current();
  return current && current->State() != TimelapseState::kFinished && current->Directory().Exists();
}

hal_adapter::HalStatus TimelapseService::Delete(const std::string& index) {
  const hal_adapter::HalStatus status = store_.Delete(index);
  if (status == hal_adapter::HalStatus::kSuccess) worker_.TryAgain();
  return status;
}

UploadResult TimelapseService::Upload(const std::string& index, const std::string& type) {
  return uploads_.Upload(index, type);
}

}  // namespace varnel::service

#include "service/camera/timelapse/films/recorder.h"

#include <system_error>
#include <utility>
#include <vector>

#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";

}  // namespace

Recorder::Recorder(std::shared_ptr<WorkDirectory> directory, hal_adapter::PhotoTaker& camera)
    : directory_(std::move(directory)), camera_(camera) {}

bool Recorder::Start(bool continued) {
  const std::string index = directory_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'Start' command, continue: {}.", index,
            continued ? "yes" : "no");
  const utils::MutexLock lock(photo_mutex_);
  if (!continued && State() != TimelapseState::kReady) {
    VLOG_ERROR(kTag, "Timelapse {} is not ready.", index);
    return false;
  }
  if (continued && State() != TimelapseState::kActivated) {
    VLOG_ERROR(kTag, "Timelapse {} is not activated.", index);
    return false;
  }
  if (!continued && !directory_->Advance(TimelapseState::kActivated)) return false;
  const std::vector<uint32_t> photos = directory_->Photos();
  if (!photos.empty()) next_number_ = photos.back() + 1;
  // One that was begun by an earlier version has none.
  if (continued) stop_prepared_ = PrepareStop(directory_->Path());
  return true;
}

bool Recorder::Capture(uint32_t number) const {
  const fs::path photo = directory_->Photo(number);
  const bool taken = camera_.TakePhoto(photo.string()) == hal_adapter::PhotoStatus::kSuccess;
  std::error_code error;
  const uintmax_t size = fs::file_size(photo, error);
  if (error == std::errc::no_such_file_or_directory) {
    VLOG_ERROR(kTag, "Take photo: capture to file failed, file {} not exist.", photo.string());
  } else if (error || size == 0) {
    VLOG_ERROR(kTag, "Take photo: get capture file size ({}) invalid, error code: {}",
               error ? 0 : size, error.value());
  }
  if (taken && !error && size > 0) return true;
  fs::remove(photo, error);  // it was answered that there is none
  return false;
}

TimelapsePhoto Recorder::TakePhoto() {
  const std::string index = directory_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'TakePhoto' command.", index);
  const utils::MutexLock lock(photo_mutex_);
  if (State() != TimelapseState::kActivated || closed_) {
    VLOG_ERROR(kTag, "Timelapse take photo: {} is not active.", index);
    return TimelapsePhoto::kNotActive;
  }
  if (!stop_prepared_) stop_prepared_ = PrepareStop(directory_->Path());
  VLOG_INFO(kTag, "Timelapse {}: take photo {}.", index, next_number_);
  // The number of one that failed is not used again: the encoder may have seen its file.
  return Capture(next_number_++) ? TimelapsePhoto::kTaken : TimelapsePhoto::kFailed;
}

bool Recorder::Stop() {
  const std::string index = directory_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'Stop' command.", index);
  const utils::MutexLock lock(photo_mutex_);
  if (State() != TimelapseState::kActivated || closed_) {
    VLOG_ERROR(kTag, "Stop timelapse: {} is not active.", index);
    return false;
  }
  if (directory_->Photos().empty()) {
    VLOG_ERROR(kTag, "Stop timelapse: no valid photos.");
    return false;
  }
  stop_asked_ = true;
  return directory_->Advance(TimelapseState::kGenerating);
}

}  // namespace varnel::service

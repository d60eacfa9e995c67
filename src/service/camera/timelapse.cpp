#include "service/camera/timelapse.h"

#include <system_error>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "TLP";

}  // namespace

Timelapse::Timelapse(std::shared_ptr<TimelapseInstance> instance, TakePhotoTo take_photo,
                     SegmentEncoder& segments)
    : instance_(std::move(instance)), take_photo_(std::move(take_photo)), segments_(segments) {}

Timelapse::~Timelapse() {
  EndEncoding();
}

bool Timelapse::Start(bool continued) {
  const std::string index = instance_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'Start' command, continue: {}.", index,
            continued ? "yes" : "no");
  const std::lock_guard lock(photo_mutex_);
  if (!continued && State() != TimelapseState::kReady) {
    VLOG_ERROR(kTag, "Timelapse {} is not ready.", index);
    return false;
  }
  if (continued && State() != TimelapseState::kActivated) {
    VLOG_ERROR(kTag, "Timelapse {} is not activated.", index);
    return false;
  }
  if (!continued && !instance_->RecordState(TimelapseState::kActivated)) return false;
  const std::vector<uint32_t> photos = instance_->Photos();
  if (!photos.empty()) next_number_ = photos.back() + 1;
  const std::lock_guard thread_lock(thread_mutex_);
  // What an interruption left goes first, and holds up no photo of this run.
  encoding_ =
      utils::SpawnGuarded("film-segments", kTag,
                          [this, left = instance_->PhotosToEncode()](const std::stop_token& stop) {
                            for (const uint32_t number : left)
                              if (!stop.stop_requested()) Encode(number);
                            EncodeWaiting(stop);
                          });
  return true;
}

bool Timelapse::Capture(uint32_t number) const {
  const std::filesystem::path photo = instance_->Photo(number);
  const bool taken = take_photo_(photo.string());
  std::error_code error;
  const uintmax_t size = std::filesystem::file_size(photo, error);
  if (error == std::errc::no_such_file_or_directory) {
    VLOG_ERROR(kTag, "Take photo: capture to file failed, file {} not exist.", photo.string());
  } else if (error || size == 0) {
    VLOG_ERROR(kTag, "Take photo: get capture file size ({}) invalid, error code: {}",
               error ? 0 : size, error.value());
  }
  return taken && !error && size > 0;
}

TimelapsePhoto Timelapse::TakePhoto() {
  const std::string index = instance_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'TakePhoto' command.", index);
  const std::lock_guard lock(photo_mutex_);
  if (State() != TimelapseState::kActivated || abandoned_) {
    VLOG_ERROR(kTag, "Timelapse take photo: {} is not active.", index);
    return TimelapsePhoto::kNotActive;
  }
  VLOG_INFO(kTag, "Timelapse {}: take photo {}.", index, next_number_);
  if (!Capture(next_number_)) return TimelapsePhoto::kFailed;
  Enqueue(next_number_++);
  return TimelapsePhoto::kTaken;
}

void Timelapse::Enqueue(uint32_t number) {
  std::unique_lock lock(queue_mutex_);
  // Bounded by the time limit of the encoder, which prefers us to films that are finished.
  queue_changed_.wait(lock, [this] { return waiting_.size() < kMaxWaiting || abandoned_; });
  waiting_.push_back(number);
  queue_changed_.notify_all();
}

void Timelapse::EncodeWaiting(const std::stop_token& stop) {
  std::unique_lock lock(queue_mutex_);
  while (queue_changed_.wait(lock, stop, [this] { return !waiting_.empty(); }) &&
         !stop.stop_requested()) {
    const uint32_t number = waiting_.front();
    waiting_.pop_front();
    queue_changed_.notify_all();
    lock.unlock();
    Encode(number);
    lock.lock();
  }
}

void Timelapse::Encode(uint32_t number) noexcept {
  try {
    segments_.Encode(*instance_, number);
  } catch (const std::exception& error) {
    // The photo is still there when the film is made.
    VLOG_ERROR(kTag, "Photo {} was not encoded: {}", number, utils::LogText(error.what()));
  }
}

bool Timelapse::Stop() {
  const std::string index = instance_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'Stop' command.", index);
  const std::lock_guard lock(photo_mutex_);
  if (State() != TimelapseState::kActivated || abandoned_) {
    VLOG_ERROR(kTag, "Stop timelapse: {} is not active.", index);
    return false;
  }
  if (instance_->Photos().empty()) {
    VLOG_ERROR(kTag, "Stop timelapse: no valid photos.");
    return false;
  }
  return instance_->RecordState(TimelapseState::kGenerating);
}

void Timelapse::Abandon() {
  {
    const std::lock_guard lock(queue_mutex_);  // so that a photo that waits cannot miss it
    abandoned_ = true;
    queue_changed_.notify_all();
  }
  const std::lock_guard lock(thread_mutex_);
  encoding_.request_stop();
}

void Timelapse::EndEncoding() {
  const std::lock_guard lock(thread_mutex_);
  if (!encoding_.joinable()) return;
  encoding_.request_stop();
  encoding_.join();
}

}  // namespace varnel::service

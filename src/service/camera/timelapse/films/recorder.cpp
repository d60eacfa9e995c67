#include "service/camera/timelapse/films/recorder.h"

#include <system_error>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "TLP";

}  // namespace

Recorder::Recorder(std::shared_ptr<WorkDirectory> instance, TakePhotoTo take_photo,
                   SegmentEncoder& segments)
    : instance_(std::move(instance)), take_photo_(std::move(take_photo)), segments_(segments) {}

Recorder::~Recorder() {
  EndEncoding();
}

bool Recorder::Start(bool continued) {
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
  {
    const std::lock_guard queue_lock(queue_mutex_);
    const std::vector<uint32_t> left = instance_->PhotosToEncode();
    left_.assign(left.begin(), left.end());
  }
  const std::lock_guard thread_lock(thread_mutex_);
  encoding_ = utils::SpawnGuarded("film-segments", kTag,
                                  [this](const std::stop_token& stop) { EncodeWaiting(stop); });
  return true;
}

bool Recorder::Capture(uint32_t number) const {
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

TimelapsePhoto Recorder::TakePhoto() {
  uint32_t number = 0;
  const TimelapsePhoto outcome = Take(number);
  // No state change has to wait until there is room for it.
  if (outcome == TimelapsePhoto::kTaken) Enqueue(number);
  return outcome;
}

TimelapsePhoto Recorder::Take(uint32_t& number) {
  const std::string index = instance_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'TakePhoto' command.", index);
  const std::lock_guard lock(photo_mutex_);
  if (State() != TimelapseState::kActivated || closed_) {
    VLOG_ERROR(kTag, "Timelapse take photo: {} is not active.", index);
    return TimelapsePhoto::kNotActive;
  }
  VLOG_INFO(kTag, "Timelapse {}: take photo {}.", index, next_number_);
  if (!Capture(next_number_)) return TimelapsePhoto::kFailed;
  number = next_number_++;
  return TimelapsePhoto::kTaken;
}

void Recorder::Enqueue(uint32_t number) {
  std::unique_lock lock(queue_mutex_);
  // Bounded by the time limit of the encoder, which prefers us to films that are finished.
  queue_changed_.wait(lock, [this] { return waiting_.size() < kMaxWaiting || closed_; });
  waiting_.push_back(number);
  queue_changed_.notify_all();
}

void Recorder::EncodeWaiting(const std::stop_token& stop) {
  const auto some = [this] { return !waiting_.empty() || !left_.empty(); };
  std::unique_lock lock(queue_mutex_);
  while (queue_changed_.wait(lock, stop, some) && !stop.stop_requested()) {
    std::deque<uint32_t>& next = waiting_.empty() ? left_ : waiting_;
    const uint32_t number = next.front();
    next.pop_front();
    queue_changed_.notify_all();
    lock.unlock();
    Encode(number);
    lock.lock();
  }
}

void Recorder::Encode(uint32_t number) noexcept {
  try {
    segments_.Encode(*instance_, number);
  } catch (const std::exception& error) {
    // The photo is still there when the film is made.
    VLOG_ERROR(kTag, "Photo {} was not encoded: {}", number, utils::LogText(error.what()));
  }
}

bool Recorder::Stop() {
  const std::string index = instance_->Index();
  VLOG_INFO(kTag, "Timelapse {}: receive 'Stop' command.", index);
  const std::lock_guard lock(photo_mutex_);
  if (State() != TimelapseState::kActivated || closed_) {
    VLOG_ERROR(kTag, "Stop timelapse: {} is not active.", index);
    return false;
  }
  if (instance_->Photos().empty()) {
    VLOG_ERROR(kTag, "Stop timelapse: no valid photos.");
    return false;
  }
  return instance_->RecordState(TimelapseState::kGenerating);
}

void Recorder::Close() {
  const std::lock_guard lock(queue_mutex_);  // so that a photo that waits cannot miss it
  closed_ = true;
  queue_changed_.notify_all();
}

void Recorder::Abandon() {
  Close();
  const std::lock_guard lock(thread_mutex_);
  encoding_.request_stop();
}

void Recorder::EndEncoding() {
  Close();
  std::jthread encoding;
  {
    const std::lock_guard lock(thread_mutex_);
    encoding = std::move(encoding_);
  }
  encoding.request_stop();
  if (encoding.joinable()) encoding.join();
}

}  // namespace varnel::service

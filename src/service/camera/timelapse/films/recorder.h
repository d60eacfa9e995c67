#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "hal_adapter/photo_taker.h"
#include "service/camera/timelapse/disk/work_directory.h"
#include "utils/mutex.h"

namespace varnel::service {

enum class [[nodiscard]] TimelapsePhoto{kTaken, kNotActive, kFailed};

/// The time-lapse of the current print: takes its photos to disk, where they wait for the encoder.
/// Thread-safe.
class Recorder {
 public:
  /// The camera must outlive it.
  Recorder(std::shared_ptr<WorkDirectory> directory, hal_adapter::PhotoTaker& camera);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// A new instance becomes ACTIVATED; a continued one must be it.
  [[nodiscard]] bool Start(bool continued);
  /// Returns when the photo's file is whole.
  [[nodiscard]] TimelapsePhoto TakePhoto();
  /// The state becomes GENERATING. False when it is not active or has no photo.
  [[nodiscard]] bool Stop();
  /// Takes no more photos: the print goes on in another time-lapse.
  void Close() { closed_ = true; }

  /// A client wanted it to become a film, whether that could be recorded or not.
  bool StopWasAsked() const { return stop_asked_; }
  WorkDirectory& Directory() { return *directory_; }
  TimelapseState State() const { return directory_->State(); }

 private:
  bool Capture(uint32_t number) const;

  const std::shared_ptr<WorkDirectory> directory_;
  hal_adapter::PhotoTaker& camera_;
  std::atomic<bool> closed_ = false;
  std::atomic<bool> stop_asked_ = false;

  utils::Mutex photo_mutex_;  // one photo, and no state change while it is taken
  uint32_t next_number_ GUARDED_BY(photo_mutex_) = 1;
  bool stop_prepared_ GUARDED_BY(photo_mutex_) = true;
};

}  // namespace varnel::service

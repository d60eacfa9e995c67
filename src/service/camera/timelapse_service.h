#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "service/camera/film_queue.h"
#include "service/camera/timelapse.h"
#include "service/camera/timelapse_paths.h"
#include "service/camera/timelapse_root.h"
#include "service/camera/timelapse_store.h"
#include "service/camera/timelapse_upload.h"
#include "service/camera/video_encoder.h"
#include "service/camera/video_finisher.h"

namespace varnel::service {

/// The time-lapses of the printer: the one of the current print, the films that are being made, and
/// those that are finished. Thread-safe.
class TimelapseService {
 public:
  enum class StopResult { kStopped, kRefused, kNothingRuns };

  TimelapseService(TimelapsePaths paths, Timelapse::TakePhotoTo take_photo, NotifyClients notify,
                   std::unique_ptr<FileUploader> uploader = std::make_unique<NoUploader>(),
                   utils::Clock& clock = utils::SystemClock::Instance());

  /// Once, before anything else: clears away what an interruption left, and has the films made that
  /// are still missing, in the background.
  void HandleUnfinished();

  /// A new time-lapse takes the place of the current one; one that was not stopped is removed.
  [[nodiscard]] bool StartNew(const TimelapseSettings& settings);
  /// Goes on with the unfinished one.
  [[nodiscard]] bool Continue();
  [[nodiscard]] StopResult Stop();
  /// Absent: there is no time-lapse.
  [[nodiscard]] std::optional<TimelapsePhoto> TakePhoto();
  /// There is a current time-lapse, and its film neither finished nor given up.
  [[nodiscard]] bool IsRunning() const;

  const TimelapseStore& Store() const { return store_; }
  [[nodiscard]] hal_adapter::HalStatus Upload(const std::string& index, const std::string& type,
                                              UploadedFilm& film);

 private:
  void HandleLeftBehind(const std::string& index);
  void RemoveTemporaryNames() const;
  void Retire();
  std::shared_ptr<Timelapse> Current() const;
  bool Begin(std::shared_ptr<TimelapseInstance> instance, bool continued);

  const TimelapsePaths paths_;
  const Timelapse::TakePhotoTo take_photo_;
  const std::unique_ptr<FileUploader> uploader_;
  VideoEncoder encoder_;
  SegmentEncoder segments_;
  TimelapseStore store_;
  VideoFinisher finisher_;

  std::mutex command_mutex_;  // one start or stop at a time
  TimelapseRoot root_;        // command_mutex_

  mutable std::mutex current_mutex_;
  std::shared_ptr<Timelapse> current_;  // current_mutex_

  FilmQueue films_;  // last: its thread uses the rest
};

}  // namespace varnel::service

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "service/camera/timelapse/disk/film_store.h"
#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "service/camera/timelapse/disk/work_directories.h"
#include "service/camera/timelapse/encoder/encoder_run.h"
#include "service/camera/timelapse/films/film_maker.h"
#include "service/camera/timelapse/films/film_worker.h"
#include "service/camera/timelapse/films/recorder.h"
#include "service/camera/timelapse/films/timelapse_upload.h"
#include "utils/mutex.h"

namespace varnel::service {

/// What the time-lapses are built from; the defaults are the board's.
struct TimelapseSetup {
  TimelapsePaths paths = {};
  EncoderPrograms programs = {};
  hal_adapter::PhotoTaker* camera = nullptr;  ///< must outlive the service
  NotifyClients notify;
  /// Films are not begun before; asked until it says yes.
  std::function<bool()> broker_answers = [] { return true; };
  std::shared_ptr<FileUploader> uploader = std::make_shared<NoUploader>();
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// The time-lapses of the printer: the one of the current print, the films that are being made, and
/// those that are finished. Thread-safe.
class TimelapseService {
 public:
  enum class [[nodiscard]] StopResult{kStopped, kRefused, kNothingRuns};

  explicit TimelapseService(TimelapseSetup setup);

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
  /// There is a current time-lapse, and its film not finished.
  [[nodiscard]] bool IsRunning() const;

  const FilmStore& Store() const { return store_; }
  /// Removes a film; a status as of FilmStore::Delete().
  hal_adapter::HalStatus Delete(const std::string& index);
  UploadResult Upload(const std::string& index, const std::string& type);

 private:
  void ClearTemporaryNames() const;
  void HandleLeftBehind(const std::string& index) const;
  void MakeRoomForNew();
  void Retire() REQUIRES(command_mutex_);
  void RepeatStops() REQUIRES(command_mutex_);
  std::shared_ptr<Recorder> Current() const;
  bool Begin(std::shared_ptr<WorkDirectory> directory, bool continued) REQUIRES(command_mutex_);

  const TimelapsePaths paths_;
  hal_adapter::PhotoTaker& camera_;
  const std::shared_ptr<FileUploader> uploader_;
  const Ffmpeg ffmpeg_;
  const FilmStore store_;
  FilmUploads uploads_;
  WorkDirectories directories_;
  const FilmMaker maker_;

  utils::Mutex command_mutex_;  // one start or stop at a time; nothing that takes long
  std::set<std::string> stops_wanted_ GUARDED_BY(command_mutex_);  // that could not be recorded yet

  mutable utils::Mutex current_mutex_;
  std::shared_ptr<Recorder> current_ GUARDED_BY(current_mutex_);

  FilmWorker worker_;  // last: its thread uses the rest
};

}  // namespace varnel::service

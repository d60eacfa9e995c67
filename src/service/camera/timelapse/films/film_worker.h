#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "service/camera/timelapse/disk/work_directories.h"
#include "service/camera/timelapse/films/film_maker.h"
#include "service/camera/timelapse/films/film_waits.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Does what the disk says is missing, on a thread of its own, one program at a time: segments of
/// the print that runs, then films of those that were stopped. Whoever changes the disk wakes it;
/// there is no other queue.
class FilmWorker {
 public:
  /// All must outlive it.
  /// @param broker_answers films are not begun before
  FilmWorker(const TimelapsePaths& paths, WorkDirectories& directories, const FilmStore& store,
             const Ffmpeg& ffmpeg, const FilmMaker& maker, std::function<bool()> broker_answers,
             utils::Clock& clock);
  /// Waits for the program that runs; what is not done stays on disk.
  ~FilmWorker();
  FilmWorker(const FilmWorker&) = delete;
  FilmWorker& operator=(const FilmWorker&) = delete;

  /// Once, when what an interruption left is in order.
  void Start();
  /// There is a photo of a print that runs.
  void PhotoTaken();
  /// A print begins, goes on or was stopped: all of them are looked at.
  void Wake();
  /// What failed may be possible now: something was deleted.
  void TryAgain();

 private:
  /// An activated instance.
  struct Print {
    std::shared_ptr<WorkDirectory> directory;
    KnownPhotos photos;
  };

  void Run(const std::stop_token& stop);
  bool AwaitBroker(const std::stop_token& stop);
  void AwaitChange(const std::stop_token& stop);
  bool TakeChange();
  void Look(const std::stop_token& stop);
  void LookAtFinished();
  /// None, and look_failed_, when it cannot be told now.
  std::vector<std::string> IndicesIn(TimelapseState state);
  void FindPrints();
  void EncodePrints(const std::stop_token& stop);
  bool MakeNextFilm(const std::stop_token& stop);
  void MakeFilm(WorkDirectory& directory, const std::stop_token& stop);
  void Settle(WorkDirectory& directory, const FilmAttempt& attempt);
  /// False also when it cannot be told.
  bool IsUnlisted(const std::string& index) const;
  void GiveBackRoom();
  void Guarded(const std::function<void()>& work);

  const TimelapsePaths& paths_;
  WorkDirectories& directories_;
  const FilmStore& store_;
  const Ffmpeg& ffmpeg_;
  const FilmMaker& maker_;
  const std::function<bool()> broker_answers_;
  utils::Clock& clock_;

  // Of the thread, up to the lock. A store of years has thousands of states to read: that is done
  // when one may have changed, and not for each photo.
  std::map<std::string, Print> prints_;
  FilmWaits waits_;
  std::map<std::string, FilmMaker::PlayingSegments> playing_;
  bool find_prints_ = true;
  bool find_films_ = true;
  bool look_failed_ = false;

  utils::Mutex mutex_;
  utils::Condition changed_;
  bool change_ GUARDED_BY(mutex_) = true;
  bool all_changed_ GUARDED_BY(mutex_) = true;
  bool try_again_ GUARDED_BY(mutex_) = false;
  std::jthread thread_;  // last: it uses the rest
};

}  // namespace varnel::service

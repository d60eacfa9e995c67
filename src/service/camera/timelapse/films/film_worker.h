#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stop_token>
#include <string>
#include <thread>

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
  /// There is a photo, a stopped print, or something to remove.
  void Wake();
  /// What failed may be possible now: something was deleted.
  void TryAgain();

 private:
  /// An activated instance, and the photos of it that the encoder refused.
  struct Print {
    std::shared_ptr<WorkDirectory> directory;
    std::set<uint32_t> bad;
  };

  void Run(const std::stop_token& stop);
  bool AwaitBroker(const std::stop_token& stop);
  void AwaitChange(const std::stop_token& stop);
  bool TakeChange();
  void LookAtFinished();
  void EncodePrints(const std::stop_token& stop);
  bool MakeNextFilm(const std::stop_token& stop);
  void MakeFilm(WorkDirectory& directory, const std::stop_token& stop);
  void Settle(WorkDirectory& directory, const FilmAttempt& attempt);
  /// False also when it cannot be told.
  bool IsUnlisted(const std::string& index) const;
  void GiveBackRoom();
  void Guarded(const std::function<void()>& work) const;

  const TimelapsePaths& paths_;
  WorkDirectories& directories_;
  const FilmStore& store_;
  const Ffmpeg& ffmpeg_;
  const FilmMaker& maker_;
  const std::function<bool()> broker_answers_;
  utils::Clock& clock_;

  std::map<std::string, Print> prints_;  // of the thread, like the next
  FilmWaits waits_;

  utils::Mutex mutex_;
  utils::Condition changed_;
  bool change_ GUARDED_BY(mutex_) = true;
  bool try_again_ GUARDED_BY(mutex_) = false;
  std::jthread thread_;  // last: it uses the rest
};

}  // namespace varnel::service

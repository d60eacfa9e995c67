#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <thread>

#include "service/camera/timelapse/films/film_maker.h"
#include "service/camera/timelapse/films/recorder.h"

namespace varnel::service {

/// Makes the films of stopped time-lapses, one after another, on a thread of its own. Thread-safe.
class FilmWorker {
 public:
  explicit FilmWorker(FilmMaker& finisher);
  /// Waits for the film in progress; what waits stays on disk for the next start.
  ~FilmWorker();
  FilmWorker(const FilmWorker&) = delete;
  FilmWorker& operator=(const FilmWorker&) = delete;

  /// The time-lapse of a print that has just ended.
  void Add(std::shared_ptr<Recorder> timelapse);
  /// One that is given up: its encoder is waited for in the background.
  void Retire(std::shared_ptr<Recorder> timelapse);
  /// One that an earlier run of the daemon left.
  void Add(std::shared_ptr<WorkDirectory> instance);
  /// Its film could not be made; the next start tries again.
  bool HasFailed(const std::string& index) const;

 private:
  struct Job {
    std::shared_ptr<WorkDirectory> instance;
    std::shared_ptr<Recorder> timelapse;
    bool film = true;
  };

  void Push(Job job);
  void Run(const std::stop_token& stop);
  bool TryMake(const Job& job) const;
  static std::string IndexOf(const Job& job);

  FilmMaker& finisher_;
  mutable std::mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Job> jobs_;          // mutex_
  std::set<std::string> failed_;  // mutex_
  std::jthread thread_;           // last: starts when the rest is complete
};

}  // namespace varnel::service

#include "service/camera/timelapse/films/film_worker.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "utils/child_registry.h"
#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "TLP";
constexpr std::chrono::milliseconds kBrokerPause{500};
/// After a look that met a shortage.
constexpr std::chrono::minutes kRetryPause{1};
/// Whatever is due: the thread never goes round in circles.
constexpr std::chrono::seconds kShortestPause{1};

}  // namespace

FilmWorker::FilmWorker(const TimelapsePaths& paths, WorkDirectories& directories,
                       const FilmStore& store, const Ffmpeg& ffmpeg, const FilmMaker& maker,
                       std::function<bool()> broker_answers, utils::Clock& clock)
    : paths_(paths),
      directories_(directories),
      store_(store),
      ffmpeg_(ffmpeg),
      maker_(maker),
      broker_answers_(std::move(broker_answers)),
      clock_(clock) {}

FilmWorker::~FilmWorker() {
  thread_.request_stop();
  Wake();
}

void FilmWorker::Start() {
  thread_ =
      utils::SpawnGuarded("film-worker", kTag, [this](const std::stop_token& stop) { Run(stop); });
}

void FilmWorker::PhotoTaken() {
  {
    const utils::MutexLock lock(mutex_);
    change_ = true;
  }
  changed_.NotifyAll();
}

void FilmWorker::Wake() {
  {
    const utils::MutexLock lock(mutex_);
    all_changed_ = true;
  }
  PhotoTaken();
}

void FilmWorker::TryAgain() {
  {
    const utils::MutexLock lock(mutex_);
    try_again_ = true;
  }
  Wake();
}

/// What one look cannot do is no reason to never look again.
void FilmWorker::Guarded(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "A look at the time-lapses failed: {}", utils::LogText(error.what()));
    look_failed_ = true;
  }
}

void FilmWorker::Run(const std::stop_token& stop) {
  Guarded([this] { directories_.RemoveSetAside(); });
  if (!AwaitBroker(stop)) return;
  Guarded([this] { LookAtFinished(); });
  // At the process's end nothing can be started any more.
  while (!stop.stop_requested() && !utils::ChildStart().Refused()) {
    (void)TakeChange();
    Guarded([&] { Look(stop); });
    if (!find_films_) AwaitChange(stop);
  }
}

void FilmWorker::Look(const std::stop_token& stop) {
  if (find_films_) directories_.RemoveSetAside();
  EncodePrints(stop);
  // After one film there may be another, and what failed may work now.
  if (std::exchange(find_films_, false)) find_films_ = MakeNextFilm(stop);
  GiveBackRoom();
}

bool FilmWorker::AwaitBroker(const std::stop_token& stop) {
  while (!broker_answers_() && !stop.stop_requested()) {
    utils::MutexLock lock(mutex_);
    clock_.WaitUntil(lock, changed_, clock_.Now() + kBrokerPause,
                     [&] { return stop.stop_requested(); });
  }
  return !stop.stop_requested();
}

void FilmWorker::AwaitChange(const std::stop_token& stop) {
  utils::MutexLock lock(mutex_);
  const auto now = clock_.Now();
  auto due = std::max(waits_.NextDue(now), now + kShortestPause);
  if (std::exchange(look_failed_, false)) due = std::min(due, now + kRetryPause);
  clock_.WaitUntil(lock, changed_, due,
                   [&]() REQUIRES(mutex_) { return change_ || stop.stop_requested(); });
  if (!change_) all_changed_ = true;  // something is due
}

bool FilmWorker::TakeChange() {
  const utils::MutexLock lock(mutex_);
  if (std::exchange(try_again_, false)) waits_.AllDue();
  if (std::exchange(all_changed_, false)) find_prints_ = find_films_ = true;
  return std::exchange(change_, false);
}

void FilmWorker::LookAtFinished() {
  const auto finished = IndicesIn(TimelapseState::kFinished);
  for (const std::string& index : finished)
    WorkDirectory(paths_.root / index, {}, TimelapseState::kFinished).RemoveJoined();
  for (const std::string& index : store_.Unlisted(finished).value_or(std::vector<std::string>()))
    if (const auto directory = directories_.Open(index)) maker_.ListAgain(*directory);
}

std::vector<std::string> FilmWorker::IndicesIn(TimelapseState state) {
  auto indices = directories_.IndicesIn(state);
  if (indices) return std::move(*indices);
  look_failed_ = true;
  return {};
}

void FilmWorker::FindPrints() {
  const auto indices = IndicesIn(TimelapseState::kActivated);
  if (look_failed_) return;
  std::erase_if(prints_, [&](const auto& print) {
    return std::find(indices.begin(), indices.end(), print.first) == indices.end();
  });
  for (const std::string& index : indices) {
    auto directory = directories_.Open(index);
    if (!directory) {
      prints_.erase(index);
    } else if (Print& print = prints_[index]; print.directory != directory) {
      print = {std::move(directory), {}};
    }
  }
}

void FilmWorker::EncodePrints(const std::stop_token& stop) {
  // Whoever took a photo has a print: a look that found none met a shortage.
  if (std::exchange(find_prints_, false) || prints_.empty()) FindPrints();
  for (auto& [index, print] : prints_) {
    const WorkDirectory& directory = *print.directory;
    // What cannot be done waits for the next photo, or for the film, which a stop begins at once.
    (void)EncodeMissing(ffmpeg_, directory, print.photos, [&] {
      return !stop.stop_requested() && directory.State() == TimelapseState::kActivated &&
             directory.Exists();
    });
  }
}

bool FilmWorker::MakeNextFilm(const std::stop_token& stop) {
  auto indices = IndicesIn(TimelapseState::kGenerating);
  if (look_failed_) return false;
  waits_.KeepOnly(indices);
  std::erase_if(playing_, [&](const auto& film) {
    return std::find(indices.begin(), indices.end(), film.first) == indices.end();
  });
  // One that fails again and again must not hold up a new one.
  std::stable_partition(indices.begin(), indices.end(),
                        [this](const std::string& index) { return !waits_.Has(index); });
  for (const std::string& index : indices) {
    if (stop.stop_requested() || !waits_.IsDue(index, clock_.Now())) continue;
    const auto directory = directories_.Open(index);
    // Recorded, but still being stopped: that wakes us once more.
    if (directory && directory->State() != TimelapseState::kGenerating) continue;
    if (directory) {
      MakeFilm(*directory, stop);
    } else {
      VLOG_WARN(kTag,
                "Finish timelapse: {} is not an existing instance or state is not 'GENERATING', do "
                "nothing.",
                index);
      (void)waits_.Postpone(index, clock_.Now());
    }
    return true;
  }
  return false;
}

void FilmWorker::MakeFilm(WorkDirectory& directory, const std::stop_token& stop) {
  const FilmAttempt attempt = maker_.Make(directory, playing_[directory.Index()], [&] {
    // Photos of a print that runs go before those of one that is over.
    if (TakeChange()) EncodePrints(stop);
    return !stop.stop_requested() && directory.Exists();
  });
  Settle(directory, attempt);
}

void FilmWorker::Settle(WorkDirectory& directory, const FilmAttempt& attempt) {
  const std::string index = directory.Index();
  if (attempt.Done()) {
    waits_.Forget(index);
    waits_.AllDue();
    return;
  }
  const bool process_ends = utils::ChildStart().Refused();
  if (attempt.end == WorkEnd::kInterrupted || process_ends || !directory.Exists()) return;
  const bool first = waits_.Postpone(index, clock_.Now());
  if (attempt.listed) return;  // clients have the film; only its record of the state is missing
  if (attempt.end == WorkEnd::kFailed) directory.CountFailure();
  const bool told = attempt.end == WorkEnd::kFailed && directory.Failures() > 1;
  if (first && !told) maker_.NotifyFailed(directory, attempt.problem);
}

bool FilmWorker::IsUnlisted(const std::string& index) const {
  const auto unlisted = store_.Unlisted({index});
  return unlisted && !unlisted->empty();
}

void FilmWorker::GiveBackRoom() {
  for (const std::string& index : waits_.Indices()) {
    if (utils::EnoughFreeSpace(paths_.root, paths_.min_free_bytes)) return;
    const WorkDirectory directory(paths_.root / index, {}, TimelapseState::kGenerating);
    if (directory.Failures() < FilmMaker::kManyFailures || !IsUnlisted(index)) continue;
    VLOG_ERROR(kTag, "The film of {} failed {} times and the disk is full, its photos are removed",
               index, directory.Failures());
    waits_.Forget(index);
    if (!directories_.SetAside(index)) continue;
    directories_.RemoveSetAside();
    waits_.AllDue();
  }
}

}  // namespace varnel::service

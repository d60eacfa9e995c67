#include "service/camera/timelapse/films/film_worker.h"

#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "TLP";

}  // namespace

FilmWorker::FilmWorker(FilmMaker& finisher)
    : finisher_(finisher),
      thread_(utils::SpawnGuarded("film-queue", kTag,
                                  [this](const std::stop_token& stop) { Run(stop); })) {}

FilmWorker::~FilmWorker() {
  thread_.request_stop();
  thread_.join();
}

void FilmWorker::Add(std::shared_ptr<Recorder> timelapse) {
  Push({nullptr, std::move(timelapse), true});
}

void FilmWorker::Retire(std::shared_ptr<Recorder> timelapse) {
  Push({nullptr, std::move(timelapse), false});
}

void FilmWorker::Add(std::shared_ptr<WorkDirectory> instance) {
  Push({std::move(instance), nullptr, true});
}

bool FilmWorker::HasFailed(const std::string& index) const {
  const std::lock_guard lock(mutex_);
  return failed_.count(index) > 0;
}

void FilmWorker::Push(Job job) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
}

void FilmWorker::Run(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (changed_.wait(lock, stop, [this] { return !jobs_.empty(); }) && !stop.stop_requested()) {
    const Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    const bool made = TryMake(job);
    lock.lock();
    if (!made) failed_.insert(IndexOf(job));
  }
}

bool FilmWorker::TryMake(const Job& job) const {
  try {
    if (job.timelapse) job.timelapse->EndEncoding();
    if (!job.film) return true;
    return finisher_.Finish(job.timelapse ? job.timelapse->Instance() : *job.instance);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "A film was not made: {}", utils::LogText(error.what()));
    return false;
  }
}

std::string FilmWorker::IndexOf(const Job& job) {
  return job.timelapse ? job.timelapse->Instance().Index() : job.instance->Index();
}

}  // namespace varnel::service

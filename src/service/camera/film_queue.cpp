#include "service/camera/film_queue.h"

#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "TLP";

}  // namespace

FilmQueue::FilmQueue(VideoFinisher& finisher)
    : finisher_(finisher),
      thread_(utils::SpawnGuarded("film-queue", kTag,
                                  [this](const std::stop_token& stop) { Run(stop); })) {}

FilmQueue::~FilmQueue() {
  thread_.request_stop();
  thread_.join();
}

void FilmQueue::Add(std::shared_ptr<Timelapse> timelapse) {
  Push({nullptr, std::move(timelapse), true});
}

void FilmQueue::Retire(std::shared_ptr<Timelapse> timelapse) {
  Push({nullptr, std::move(timelapse), false});
}

void FilmQueue::Add(std::shared_ptr<TimelapseInstance> instance) {
  Push({std::move(instance), nullptr, true});
}

bool FilmQueue::HasFailed(const std::string& index) const {
  const std::lock_guard lock(mutex_);
  return failed_.count(index) > 0;
}

void FilmQueue::Push(Job job) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
}

void FilmQueue::Run(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (changed_.wait(lock, stop, [this] { return !jobs_.empty(); }) && !stop.stop_requested()) {
    const Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    try {
      Make(job);
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "A film was not made: {}", utils::LogText(error.what()));
    }
    lock.lock();
  }
}

void FilmQueue::Make(const Job& job) {
  if (job.timelapse) job.timelapse->EndEncoding();
  if (!job.film) return;
  TimelapseInstance& instance = job.timelapse ? job.timelapse->Instance() : *job.instance;
  if (finisher_.Finish(instance)) return;
  const std::lock_guard lock(mutex_);
  failed_.insert(instance.Index());
}

}  // namespace varnel::service

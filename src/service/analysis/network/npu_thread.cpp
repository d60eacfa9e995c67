#include "service/analysis/network/npu_thread.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>

#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;

void Perform(const NpuThread::Job& job) noexcept {
  try {
    job();
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "A job of the NPU ended: {}", error.what());
  }
}

}  // namespace

/// Where caller and thread meet. Both own it, because either may be the one that is left.
struct NpuThread::Desk {
  explicit Desk(utils::Clock& its_clock) : clock(its_clock) {}

  uint64_t Add(Job job);
  bool Await(std::unique_lock<std::mutex>& lock, uint64_t number);
  void Work();
  void Done();

  utils::Clock& clock;  ///< the caller's side only
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Job> jobs;   // guarded by mutex, like all below
  uint64_t added = 0;     // jobs ever
  uint64_t done = 0;      // of them
  bool overdue = false;   // a job took longer than anybody waits, and not all are done since
  bool stopping = false;  // no more jobs come
};

uint64_t NpuThread::Desk::Add(Job job) {
  jobs.push_back(std::move(job));
  changed.notify_all();
  return ++added;
}

bool NpuThread::Desk::Await(std::unique_lock<std::mutex>& lock, uint64_t number) {
  const auto is_done = [&] { return done >= number; };
  if (clock.WaitUntil(lock, changed, clock.Now() + kPatience, is_done)) return true;
  overdue = true;
  lock.unlock();
  VLOG_ERROR(kTag, "The NPU has not answered for {} s, detections fail until it does",
             kPatience.count());
  return false;
}

void NpuThread::Desk::Work() {
  std::unique_lock lock(mutex);
  for (;;) {
    changed.wait(lock, [&] { return stopping || !jobs.empty(); });
    if (jobs.empty()) return;
    Job job = std::move(jobs.front());
    jobs.pop_front();
    lock.unlock();
    Perform(job);
    job = nullptr;  // what it owns ends before anybody hears of it
    Done();
    lock.lock();
  }
}

void NpuThread::Desk::Done() {
  bool was_overdue = false;
  {
    const std::lock_guard lock(mutex);
    ++done;
    if (jobs.empty()) was_overdue = std::exchange(overdue, false);
  }
  changed.notify_all();
  if (was_overdue) VLOG_INFO(kTag, "The NPU answers again");
}

NpuThread::NpuThread(utils::Clock& clock) : desk_(std::make_shared<Desk>(clock)) {}

NpuThread::~NpuThread() {
  bool busy = IsCaller();
  {
    const std::lock_guard lock(desk_->mutex);
    desk_->stopping = true;
    busy = busy || desk_->overdue;
  }
  desk_->changed.notify_all();
  if (busy) thread_.detach();
}

bool NpuThread::IsCaller() const {
  return thread_.get_id() == std::this_thread::get_id();
}

void NpuThread::Start() {
  if (thread_.joinable()) return;
  thread_ = utils::SpawnGuarded("npu", kTag, [desk = desk_] { desk->Work(); });
}

bool NpuThread::Do(Job job) {
  if (IsCaller()) {
    job();
    return true;
  }
  Start();
  std::unique_lock lock(desk_->mutex);
  return !desk_->overdue && desk_->Await(lock, desk_->Add(std::move(job)));
}

void NpuThread::DoInAnyCase(Job job) {
  if (IsCaller()) return job();
  if (!thread_.joinable()) {  // it could not be started, so nothing of ours is on the NPU yet
    Perform(job);
    return;
  }
  std::unique_lock lock(desk_->mutex);
  const uint64_t number = desk_->Add(std::move(job));
  if (!desk_->overdue) (void)desk_->Await(lock, number);
}

bool NpuThread::Answers() const {
  const std::lock_guard lock(desk_->mutex);
  return !desk_->overdue;
}

utils::Clock::TimePoint NpuThread::Now() const {
  return desk_->clock.Now();
}

}  // namespace varnel::service

#include "service/analysis/network/npu_thread.h"

#include <deque>
#include <exception>

#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"
#include "utils/mutex.h"
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

  /// False when it was not done in time. One that need not be done in any case is refused while
  /// another one is overdue.
  bool Do(Job job, bool in_any_case);
  void Work();
  void Done();

  utils::Clock& clock;  ///< the caller's side only
  utils::Mutex mutex;
  utils::Condition changed;
  std::deque<Job> jobs GUARDED_BY(mutex);
  uint64_t added GUARDED_BY(mutex) = 0;  // jobs ever
  uint64_t done GUARDED_BY(mutex) = 0;   // of them
  bool overdue GUARDED_BY(mutex) =
      false;  // a job took longer than anybody waits, and not all are done since
  bool stopping GUARDED_BY(mutex) = false;  // no more jobs come
};

bool NpuThread::Desk::Do(Job job, bool in_any_case) {
  {
    utils::MutexLock lock(mutex);
    if (overdue && !in_any_case) return false;
    jobs.push_back(std::move(job));
    changed.NotifyAll();
    const uint64_t number = ++added;
    if (overdue) return false;
    const auto is_done = [&]() REQUIRES(mutex) { return done >= number; };
    if (clock.WaitUntil(lock, changed, clock.Now() + kPatience, is_done)) return true;
    overdue = true;
  }
  VLOG_ERROR(kTag, "The NPU has not answered for {} s, detections fail until it does",
             kPatience.count());
  return false;
}

void NpuThread::Desk::Work() {
  utils::MutexLock lock(mutex);
  for (;;) {
    changed.Wait(lock, [&]() REQUIRES(mutex) { return stopping || !jobs.empty(); });
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
    const utils::MutexLock lock(mutex);
    ++done;
    if (jobs.empty()) was_overdue = std::exchange(overdue, false);
  }
  changed.NotifyAll();
  if (was_overdue) VLOG_INFO(kTag, "The NPU answers again");
}

NpuThread::NpuThread(utils::Clock& clock) : desk_(std::make_shared<Desk>(clock)) {}

NpuThread::~NpuThread() {
  bool busy = IsCaller();
  {
    const utils::MutexLock lock(desk_->mutex);
    desk_->stopping = true;
    busy = busy || desk_->overdue;
  }
  desk_->changed.NotifyAll();
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
  return desk_->Do(std::move(job), false);
}

void NpuThread::DoInAnyCase(Job job) {
  if (IsCaller()) return job();
  if (!thread_.joinable()) {  // it could not be started, so nothing of ours is on the NPU yet
    Perform(job);
    return;
  }
  (void)desk_->Do(std::move(job), true);  // one that is not in time is done later
}

bool NpuThread::Answers() const {
  const utils::MutexLock lock(desk_->mutex);
  return !desk_->overdue;
}

utils::Clock::TimePoint NpuThread::Now() const {
  return desk_->clock.Now();
}

}  // namespace varnel::service

#include "utils/thread_pool.h"

#include <stdexcept>

#include "utils/thread.h"

namespace varnel::utils {

ThreadPool::ThreadPool(size_t workers, const std::string& name, const char* tag) {
  workers_.reserve(workers);
  try {
    for (size_t i = 0; i < workers; ++i) {
      workers_.push_back(SpawnGuarded(name + "-" + std::to_string(i), tag, [this] { Work(); }));
    }
  } catch (...) {
    Stop();  // the workers that did start wait on members that are about to go
    throw;
  }
}

ThreadPool::~ThreadPool() {
  Stop();
}

void ThreadPool::Stop() {
  std::deque<Task> dropped;
  {
    const MutexLock lock(mutex_);
    stopped_ = true;
    dropped.swap(tasks_);
  }
  wake_.NotifyAll();
  dropped.clear();  // before the join: whoever waits for one of them need not wait for the running
                    // ones
  const MutexLock lock(join_mutex_);
  workers_.clear();
}

size_t ThreadPool::QueueSize() const {
  const MutexLock lock(mutex_);
  return tasks_.size();
}

void ThreadPool::Enqueue(Task task) {
  {
    const MutexLock lock(mutex_);
    if (stopped_) {
      throw std::runtime_error("enqueue on stopped ThreadPool");
    }
    tasks_.push_back(std::move(task));
  }
  wake_.NotifyOne();
}

void ThreadPool::Work() {
  for (;;) {
    Task task;
    if (!TakeTask(task)) {
      return;
    }
    task();
  }
}

bool ThreadPool::TakeTask(Task& task) {
  MutexLock lock(mutex_);
  wake_.Wait(lock, [this]() REQUIRES(mutex_) { return stopped_ || !tasks_.empty(); });
  if (stopped_) {
    return false;
  }
  task = std::move(tasks_.front());
  tasks_.pop_front();
  return true;
}

}  // namespace varnel::utils

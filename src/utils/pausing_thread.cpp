#include "utils/pausing_thread.h"

#include <utility>

#include "utils/thread.h"

namespace varnel::utils {

PausingThread::PausingThread(std::string name, const char* tag, Clock& clock, Body body)
    : clock_(clock), thread_(SpawnGuarded(std::move(name), tag, [this, body = std::move(body)] {
        body([this](std::chrono::milliseconds time) { return Wait(time); });
      })) {}

PausingThread::~PausingThread() {
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.NotifyAll();
  thread_.join();
}

bool PausingThread::Wait(std::chrono::milliseconds time) {
  MutexLock lock(mutex_);
  const auto stopping = [this]() REQUIRES(mutex_) { return stopping_; };
  return !clock_.WaitUntil(lock, wake_, clock_.Now() + time, stopping);
}

}  // namespace varnel::utils

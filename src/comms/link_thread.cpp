#include "comms/link_thread.h"

#include <exception>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::comms {

LinkThread::LinkThread(const std::string& name, utils::Clock& clock, Task on_deadline)
    : clock_(clock),
      on_deadline_(std::move(on_deadline)),
      thread_(utils::SpawnGuarded(name, "MQTT", [this] { Run(); })) {}

LinkThread::~LinkThread() {
  Stop();
}

void LinkThread::Post(Task task) {
  {
    const utils::MutexLock lock(mutex_);
    if (stopped_) return;
    tasks_.push_back(std::move(task));
  }
  wake_.NotifyOne();
}

void LinkThread::SetDeadline(std::optional<utils::Clock::TimePoint> deadline) {
  {
    const utils::MutexLock lock(mutex_);
    deadline_ = deadline;
    ++changes_;
  }
  wake_.NotifyOne();
}

void LinkThread::Stop() {
  {
    const utils::MutexLock lock(mutex_);
    stopped_ = true;
  }
  wake_.NotifyOne();
  if (thread_.joinable()) thread_.join();
}

void LinkThread::Run() {
  while (const Task task = Next()) {
    try {
      task();
    } catch (const std::exception& error) {
      VLOG_ERROR("MQTT", "a step of a link failed: {}", utils::LogText(error.what()));
    } catch (...) {
      VLOG_ERROR("MQTT", "a step of a link failed: {}", "unknown");
    }
  }
}

LinkThread::Task LinkThread::Next() {
  utils::MutexLock lock(mutex_);
  while (!stopped_ && tasks_.empty()) {
    const uint64_t seen = changes_;
    const auto wanted = [&]() REQUIRES(mutex_) {
      return stopped_ || !tasks_.empty() || changes_ != seen;
    };
    if (!deadline_) {
      wake_.Wait(lock, wanted);
    } else if (!clock_.WaitUntil(lock, wake_, *deadline_, wanted)) {
      deadline_.reset();
      return on_deadline_;
    }
  }
  if (stopped_) return nullptr;
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  return task;
}

}  // namespace varnel::comms

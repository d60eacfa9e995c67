#include "comms/worker_lane.h"

#include <utility>

namespace varnel::comms {

WorkerLane::WorkerLane(const std::string& name) : pool_(kThreads, name, "JRPCS") {}

bool WorkerLane::TryPost(std::function<void()> task) {
  if (waiting_.fetch_add(1) >= kMaxWaiting) {
    --waiting_;
    return false;
  }
  (void)pool_.Post([this, work = std::move(task)] {
    --waiting_;
    work();
  });
  return true;
}

}  // namespace varnel::comms

#include "comms/worker_lane.h"

#include <memory>
#include <utility>

namespace varnel::comms {

class WorkerLane::Place {
 public:
  Place(WorkerLane& lane, size_t bytes) : lane_(lane), bytes_(bytes) {
    first_ = lane_.waiting_bytes_.fetch_add(bytes_) == 0;
    granted_ = lane_.waiting_.fetch_add(1) < kMaxWaiting &&
               (first_ || lane_.waiting_bytes_ <= kMaxWaitingBytes);
  }
  ~Place() {
    --lane_.waiting_;
    lane_.waiting_bytes_ -= bytes_;
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  bool Granted() const { return granted_; }

 private:
  WorkerLane& lane_;
  const size_t bytes_;
  bool first_ = false;
  bool granted_ = false;
};

WorkerLane::WorkerLane(const std::string& name) : pool_(kThreads, name, "JRPCS") {}

bool WorkerLane::TryPost(std::function<void()> task, size_t bytes) {
  auto place = std::make_shared<Place>(*this, bytes);
  if (!place->Granted()) return false;
  (void)pool_.Post([place = std::move(place), work = std::move(task)]() mutable {
    place.reset();
    work();
  });
  return true;
}

}  // namespace varnel::comms

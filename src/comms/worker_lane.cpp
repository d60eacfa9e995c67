#include "comms/worker_lane.h"

#include <malloc.h>

#include <algorithm>
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

WorkerLane::WorkerLane(std::string name) : name_(std::move(name)) {}

void WorkerLane::Open(MethodKind kind) {
  constexpr std::array<const char*, kKinds> kNames{"quick", "photo", "detect", "list", "net"};
  const auto index = static_cast<size_t>(kind);
  const std::lock_guard lock(mutex_);
  OpenPool(index, kNames.at(index), WorkersFor(kind));
  OpenPool(kLarge, "large", 1);
}

void WorkerLane::OpenPool(size_t index, const char* name, size_t workers) {
  auto& pool = pools_.at(index);
  if (!pool) pool = std::make_unique<utils::ThreadPool>(workers, name_ + "-" + name, "JRPCS");
}

utils::ThreadPool& WorkerLane::PoolAt(size_t index) {
  const std::lock_guard lock(mutex_);
  return *pools_.at(index);
}

bool WorkerLane::TryPost(MethodKind kind, std::function<void()> task, RequestSize size) {
  auto place = std::make_shared<Place>(*this, size.bytes);
  if (!place->Granted()) return false;
  const bool large = std::max(size.bytes, size.built_bytes) > kLargeBytes;
  auto& pool = PoolAt(large ? kLarge : static_cast<size_t>(kind));
  (void)pool.Post([place = std::move(place), work = std::move(task), large]() mutable {
    place.reset();
    work();
    work = nullptr;
    // By itself the allocator would keep what it got for the many small pieces of a large request.
    if (large) ::malloc_trim(0);
  });
  return true;
}

}  // namespace varnel::comms

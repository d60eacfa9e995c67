#include "comms/worker_lane.h"

#include <malloc.h>

#include <algorithm>
#include <utility>

namespace varnel::comms {

class WorkerLane::Place {
 public:
  Place(Backlog& backlog, size_t bytes, size_t max_bytes) : backlog_(backlog), bytes_(bytes) {
    const size_t before = backlog_.bytes.fetch_add(bytes_);
    granted_ = backlog_.waiting.fetch_add(1) < kMaxWaiting &&
               (before == 0 || before + bytes_ <= max_bytes);
  }
  ~Place() {
    --backlog_.waiting;
    backlog_.bytes -= bytes_;
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  bool Granted() const { return granted_; }

 private:
  Backlog& backlog_;
  const size_t bytes_;
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
  const bool large = std::max(size.bytes, size.built_bytes) > kLargeBytes;
  const size_t index = large ? kLarge : static_cast<size_t>(kind);
  auto place = std::make_shared<Place>(backlogs_.at(index), size.bytes,
                                       large ? kMaxLargeBytes : kMaxWaitingBytes);
  if (!place->Granted()) return false;
  auto& pool = PoolAt(index);
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

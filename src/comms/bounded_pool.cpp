#include "comms/bounded_pool.h"

#include <utility>

namespace varnel::comms {

class BoundedPool::Place {
 public:
  Place(BoundedPool& pool, size_t bytes) : pool_(pool), bytes_(bytes) {
    const size_t before = pool_.waiting_bytes_.fetch_add(bytes_);
    granted_ = pool_.waiting_.fetch_add(1) < kMaxWaiting &&
               (before == 0 || before + bytes_ <= pool_.max_bytes_);
  }
  ~Place() {
    --pool_.waiting_;
    pool_.waiting_bytes_ -= bytes_;
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  bool Granted() const { return granted_; }

 private:
  BoundedPool& pool_;
  const size_t bytes_;
  bool granted_ = false;
};

BoundedPool::BoundedPool(std::string name, size_t workers, size_t max_bytes)
    : name_(std::move(name)), workers_(workers), max_bytes_(max_bytes) {}

void BoundedPool::Open() {
  const utils::MutexLock lock(mutex_);
  if (!pool_) pool_ = std::make_unique<utils::ThreadPool>(workers_, name_, "JRPCS");
}

bool BoundedPool::TryPost(std::function<void()> task, size_t bytes) {
  auto place = std::make_shared<Place>(*this, bytes);
  if (!place->Granted()) return false;
  utils::ThreadPool* pool = nullptr;
  {
    const utils::MutexLock lock(mutex_);
    pool = pool_.get();
  }
  (void)pool->Post([place = std::move(place), work = std::move(task)]() mutable {
    place.reset();
    work();
  });
  return true;
}

}  // namespace varnel::comms

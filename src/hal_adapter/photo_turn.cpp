#include "hal_adapter/photo_turn.h"

namespace varnel::hal_adapter {

bool PhotoTurn::Take(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  if (!clock_.WaitUntil(lock, free_, clock_.Now() + limit, [this] { return !taken_; })) {
    return false;
  }
  taken_ = true;
  return true;
}

void PhotoTurn::Give() {
  {
    const std::lock_guard lock(mutex_);
    taken_ = false;
  }
  free_.notify_one();
}

}  // namespace varnel::hal_adapter

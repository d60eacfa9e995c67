#include "utils/turn.h"

#include <algorithm>

namespace varnel::utils {

bool Turn::Take(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  const uint64_t ticket = ++last_ticket_;
  line_.push_back(ticket);
  const auto first = [&]() REQUIRES(mutex_) { return line_.front() == ticket; };
  if (clock_.WaitUntil(lock, changed_, clock_.Now() + limit, first)) return true;
  line_.erase(std::find(line_.begin(), line_.end(), ticket));
  return false;  // was not first, so nobody's turn changes
}

void Turn::Give() {
  {
    const MutexLock lock(mutex_);
    line_.pop_front();
  }
  changed_.NotifyAll();
}

}  // namespace varnel::utils

#include "comms/send_window.h"

#include <algorithm>

namespace varnel::comms {

void SendWindow::Open(size_t receive_maximum) {
  {
    const utils::MutexLock lock(mutex_);
    inside_.clear();
    bytes_ = 0;
    unacknowledged_ = 0;
    max_unacknowledged_ = std::max<size_t>(receive_maximum, 2) - 1;
    ++left_;
  }
  changed_.NotifyAll();
}

bool SendWindow::HasRoom(size_t bytes, bool acknowledged) const {
  if (inside_.empty()) return true;
  return bytes_ + bytes <= kMaxBytes && (!acknowledged || unacknowledged_ < max_unacknowledged_);
}

std::optional<uint32_t> SendWindow::Enter(size_t bytes, bool acknowledged,
                                          utils::Clock::TimePoint deadline) {
  utils::MutexLock lock(mutex_);
  const auto room = [&]() REQUIRES(mutex_) { return HasRoom(bytes, acknowledged); };
  if (!room() && !clock_.WaitUntil(lock, changed_, deadline, room)) return std::nullopt;
  inside_[++last_number_] = {bytes, acknowledged};
  bytes_ += bytes;
  if (acknowledged) ++unacknowledged_;
  return last_number_;
}

void SendWindow::Leave(uint32_t number) {
  {
    const utils::MutexLock lock(mutex_);
    const auto message = inside_.find(number);
    if (message == inside_.end()) return;
    bytes_ -= message->second.bytes;
    if (message->second.acknowledged) --unacknowledged_;
    inside_.erase(message);
    ++left_;
  }
  changed_.NotifyAll();
}

void SendWindow::AwaitLeave(uint64_t seen, utils::Clock::TimePoint deadline) {
  utils::MutexLock lock(mutex_);
  clock_.WaitUntil(lock, changed_, deadline, [&]() REQUIRES(mutex_) { return left_ != seen; });
}

uint64_t SendWindow::Left() const {
  const utils::MutexLock lock(mutex_);
  return left_;
}

}  // namespace varnel::comms

#include "utils/write_behind.h"

#include <string_view>

#include "utils/thread.h"
#include "utils/write_all.h"

namespace varnel::utils {

WriteBehind::WriteBehind(int fd, size_t block_size) : fd_(fd), block_size_(block_size) {
  thread_ = SpawnGuarded("write-behind", "CRYPTO",
                         [this](const std::stop_token& stop) { WriteBlocks(stop); });
}

WriteBehind::~WriteBehind() = default;

char* WriteBehind::NextBlock() {
  MutexLock lock(mutex_);
  changed_.wait(
      lock, [this]() REQUIRES(mutex_) { return filled_ - written_ < blocks_.size() || error_; });
  if (error_) {
    return nullptr;
  }
  At(filled_).bytes.resize(block_size_);  // only as many as a small file needs
  return At(filled_).bytes.data();
}

void WriteBehind::Put(size_t size) {
  const MutexLock lock(mutex_);
  At(filled_).size = size;
  ++filled_;
  if (filled_ - wanted_ >= kBatch) {
    wanted_ = filled_;
    changed_.notify_all();
  }
}

std::error_code WriteBehind::Finish() {
  MutexLock lock(mutex_);
  wanted_ = filled_;
  changed_.notify_all();
  changed_.wait(lock, [this]() REQUIRES(mutex_) { return filled_ == written_ || error_; });
  return error_;
}

void WriteBehind::WriteBlocks(const std::stop_token& stop) {
  MutexLock lock(mutex_);
  while (!error_ && changed_.wait(lock, stop, [this]() REQUIRES(mutex_) {
    return written_ < wanted_;
  }) && !stop.stop_requested()) {
    const Block& block = At(written_);
    lock.unlock();
    const std::error_code error =
        WriteAll(fd_, std::string_view(block.bytes).substr(0, block.size));
    lock.lock();
    error_ = error;
    ++written_;
    changed_.notify_all();
  }
}

}  // namespace varnel::utils

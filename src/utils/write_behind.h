#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <stop_token>
#include <string>
#include <system_error>
#include <thread>

#include "utils/mutex.h"

namespace varnel::utils {

/// Writes blocks to a descriptor on a thread of its own, so that the next block is made meanwhile.
/// The blocks that wait are bounded, so a slow disk holds up the producer. For one producing
/// thread.
class WriteBehind {
 public:
  /// Throws std::system_error when no thread can be started. The descriptor stays the caller's.
  WriteBehind(int fd, size_t block_size);
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;
  /// What is not written yet is dropped.
  ~WriteBehind();

  /// The block to fill next; waits until one is free. None once a write has failed.
  [[nodiscard]] char* NextBlock();
  /// Hands over the first `size` bytes of that block.
  void Put(size_t size);
  /// Waits until everything is written; the error of the write that failed.
  [[nodiscard]] std::error_code Finish();

 private:
  struct Block {
    std::string bytes;
    size_t size = 0;
  };

  static constexpr size_t kBlocks = 16;
  /// Waking the thread costs more than one block does, so it is woken for half of them.
  static constexpr size_t kBatch = kBlocks / 2;

  Block& At(size_t count) { return blocks_.at(count % blocks_.size()); }
  void WriteBlocks(const std::stop_token& stop);

  const int fd_;
  const size_t block_size_;
  std::array<Block, kBlocks> blocks_;  // a block belongs to the producer until filled_ passes it
  Mutex mutex_;
  size_t filled_ GUARDED_BY(mutex_) = 0;
  size_t written_ GUARDED_BY(mutex_) = 0;
  size_t wanted_ GUARDED_BY(mutex_) = 0;  // the thread is to write at least up to here
  std::error_code error_ GUARDED_BY(mutex_);
  std::condition_variable_any changed_;
  std::jthread thread_;  // last: it uses the others
};

}  // namespace varnel::utils

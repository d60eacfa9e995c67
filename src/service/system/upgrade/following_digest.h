#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "service/system/upgrade/firmware_digest.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Computes the digests of a file while somebody writes it, on a thread of its own: the end of the
/// file comes with its digests. What was there before is read, and so is what is written meanwhile;
/// afterwards the bytes come as they are written. All functions are for the thread that writes.
class FollowingDigest {
 public:
  /// @param fd readable; stays open while this lives
  /// @param there bytes that were there before
  /// @param stop ends waits
  FollowingDigest(int fd, bool with_sha256, int64_t there, std::function<bool()> stop);
  ~FollowingDigest();
  FollowingDigest(const FollowingDigest&) = delete;
  FollowingDigest& operator=(const FollowingDigest&) = delete;

  /// Of what has just been written. Waits when the thread is a few MiB behind: whoever writes
  /// faster would only keep it from its processor.
  void Add(std::string_view bytes);
  /// Of all that there is. Waits for it; nothing when it could not be read, or at the stop. Nothing
  /// is added afterwards.
  [[nodiscard]] std::optional<FirmwareDigests> End();

 private:
  static constexpr size_t kBlockBytes = size_t{256} << 10U;
  static constexpr size_t kBlocks = 16;
  struct Block {
    std::string bytes = std::string(kBlockBytes, '\0');
    size_t size = 0;
  };

  [[nodiscard]] bool IsRead(size_t size);
  [[nodiscard]] Block& Filling() { return blocks_[given_ % kBlocks]; }
  [[nodiscard]] bool Give();
  void Run();
  [[nodiscard]] bool Read(int64_t from, size_t size);
  /// False when the digests cannot be computed, or at the stop.
  template <class Predicate>
  [[nodiscard]] bool Await(utils::MutexLock& lock, Predicate ready) REQUIRES(mutex_);

  const int fd_;
  const std::function<bool()> stop_;
  FirmwareDigest digest_;  // of the thread, and of End() once it has all
  std::string buffer_;     // of the thread
  std::array<Block, kBlocks>
      blocks_;          // from taken_ to given_ the thread's, the others the writer's
  uint64_t given_ = 0;  // blocks; the writer changes it under the lock
  bool lost_ = false;   // of the writer: bytes are missing
  utils::Mutex mutex_;
  utils::Condition changed_;
  uint64_t taken_ GUARDED_BY(mutex_) = 0;
  bool reading_ GUARDED_BY(mutex_);  // the file up to there_; blocks come when all of it was read
  int64_t there_ GUARDED_BY(mutex_);
  int64_t done_ GUARDED_BY(mutex_) = 0;
  bool broken_ GUARDED_BY(mutex_) = false;
  bool ends_ GUARDED_BY(mutex_) = false;
  std::jthread thread_;  // last: it uses the others
};

}  // namespace varnel::service

#include "service/system/upgrade/following_digest.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "utils/thread.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;

constexpr const char* kTag = "UPGM";
constexpr auto kStopLook = 100ms;

}  // namespace

FollowingDigest::FollowingDigest(int fd, bool with_sha256, int64_t there,
                                 std::function<bool()> stop)
    : fd_(fd),
      stop_(std::move(stop)),
      digest_(with_sha256),
      buffer_(kBlockBytes, '\0'),
      reading_(there > 0),
      there_(there) {
  broken_ = !digest_.Begin();
  thread_ = utils::SpawnGuarded("firmware-digest", kTag, [this] { Run(); });
}

FollowingDigest::~FollowingDigest() {
  const utils::MutexLock lock(mutex_);
  ends_ = true;
  changed_.NotifyAll();
}

bool FollowingDigest::IsRead(size_t size) {
  const utils::MutexLock lock(mutex_);
  if (reading_) there_ += static_cast<int64_t>(size);
  return reading_;
}

void FollowingDigest::Add(std::string_view bytes) {
  if (lost_ || IsRead(bytes.size())) return;
  while (!bytes.empty() && !lost_) {
    Block& block = Filling();
    const size_t size = std::min(bytes.size(), kBlockBytes - block.size);
    std::memcpy(block.bytes.data() + block.size, bytes.data(), size);
    block.size += size;
    bytes.remove_prefix(size);
    if (block.size == kBlockBytes) lost_ = !Give();
  }
}

/// The block that comes next must be the writer's.
bool FollowingDigest::Give() {
  utils::MutexLock lock(mutex_);
  ++given_;
  changed_.NotifyAll();
  if (!Await(lock, [&]() REQUIRES(mutex_) { return given_ - taken_ < kBlocks; })) return false;
  Filling().size = 0;
  return true;
}

std::optional<FirmwareDigests> FollowingDigest::End() {
  if (lost_ || (Filling().size > 0 && !Give())) return std::nullopt;
  utils::MutexLock lock(mutex_);
  if (!Await(lock, [&]() REQUIRES(mutex_) { return !reading_ && taken_ == given_; }))
    return std::nullopt;
  return digest_.End();
}

template <class Predicate>
bool FollowingDigest::Await(utils::MutexLock& lock, Predicate ready) {
  const auto ends = [&]() REQUIRES(mutex_) { return broken_ || ready(); };
  while (!changed_.WaitUntil(lock, std::chrono::steady_clock::now() + kStopLook, ends))
    if (stop_ && stop_()) return false;
  return !broken_;
}

void FollowingDigest::Run() {
  utils::MutexLock lock(mutex_);
  for (;;) {
    changed_.Wait(lock, [&]() REQUIRES(mutex_) {
      return ends_ || (!broken_ && (reading_ || taken_ < given_));
    });
    if (ends_) return;
    const bool reads = reading_;
    const int64_t from = done_;
    const auto size = std::min(static_cast<size_t>(there_ - from), kBlockBytes);
    const Block& block = blocks_[taken_ % kBlocks];
    lock.unlock();
    const bool good = !reads || Read(from, size);
    if (good) digest_.Add(reads ? buffer_.data() : block.bytes.data(), reads ? size : block.size);
    lock.lock();
    broken_ = !good;
    if (reads) {
      done_ += static_cast<int64_t>(size);
      reading_ = done_ < there_;
    } else {
      ++taken_;
    }
    changed_.NotifyAll();
  }
}

bool FollowingDigest::Read(int64_t from, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t got = ::pread(fd_, buffer_.data() + done, size - done,
                                static_cast<off_t>(from + static_cast<int64_t>(done)));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

}  // namespace varnel::service

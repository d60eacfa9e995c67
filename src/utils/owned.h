#pragma once

#include <unistd.h>

#include <memory>
#include <utility>

namespace varnel::utils {

template <auto Free>
struct Freer {
  template <class T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};

/// Owns an object of a C library: `Owned<udev_monitor, udev_monitor_unref>`.
template <class T, auto Free>
using Owned = std::unique_ptr<T, Freer<Free>>;

/// Owns a file descriptor; -1 is "none".
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  int Get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  /// Gives the descriptor up without closing it.
  [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) noexcept {
    const int old = std::exchange(fd_, fd);
    if (old >= 0 && old != fd) {
      ::close(old);
    }
  }

 private:
  int fd_ = -1;
};

}  // namespace varnel::utils

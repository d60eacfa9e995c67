#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace varnel::platform {

/// The calls that the camera device makes. All fail with -1 (mmap with MAP_FAILED) and errno.
struct V4l2Calls {
  int (*open)(const char* path, int flags);
  int (*ioctl)(int fd, unsigned long request, void* argument);
  void* (*mmap)(size_t length, int fd, int64_t offset);
  int (*munmap)(void* address, size_t length);
  int (*close)(int fd);
  /// Waits for `fd` to become readable: 1, 0 at the end of the time, -1 on an error. With -1 for
  /// `fd` the time is only spent.
  int (*wait_readable)(int fd, int timeout_ms);
  /// A clock that only runs forward.
  int64_t (*now_ms)();
};

/// libv4l2, without its conversion of pictures, and the system's clock.
extern const V4l2Calls kLibV4l2Calls;

}  // namespace varnel::platform

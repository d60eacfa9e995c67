#include "platform/v4l2_calls.h"

#include <fcntl.h>
#include <libv4l2.h>
#include <poll.h>
#include <sys/mman.h>

#include <chrono>

#include "utils/owned.h"

namespace varnel::platform {
namespace {

/// As v4l2_open() does, but with libv4l2's conversion off: it takes a driver that lists NV12 alone
/// for one whose pictures nobody understands, and turns them into RGB.
int Open(const char* path, int flags) {
  utils::UniqueFd fd(::open(path, flags));
  if (!fd || v4l2_fd_open(fd.Get(), V4L2_DISABLE_CONVERSION) == -1) return -1;
  return fd.Release();
}

int Ioctl(int fd, unsigned long request, void* argument) {
  return v4l2_ioctl(fd, request, argument);
}

void* Map(size_t length, int fd, int64_t offset) {
  return v4l2_mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
}

/// poll, since a descriptor of 1024 or more does not fit into select's set. It passes over a
/// negative one.
int WaitReadable(int fd, int timeout_ms) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, timeout_ms);
}

int64_t NowMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

const V4l2Calls kLibV4l2Calls = {Open, Ioctl, Map, v4l2_munmap, v4l2_close, WaitReadable, NowMs};

}  // namespace varnel::platform

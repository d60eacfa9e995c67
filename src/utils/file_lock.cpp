#include "utils/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace varnel::utils {
namespace {

constexpr std::chrono::milliseconds kRetry{2};

/// Whoever is next in the queue holds this, another lock on the same file, so that a holder that
/// comes back at once does not overtake those that wait.
bool TryQueue(int fd, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  return ::fcntl(fd, F_OFD_SETLK, &range) == 0;
}

bool TryLock(int fd) {
  return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

bool IsHeldByOther(int error) {
  return error == EWOULDBLOCK || error == EACCES || error == EINTR;
}

}  // namespace

std::optional<FileLock> FileLock::Acquire(const std::filesystem::path& file,
                                          std::chrono::milliseconds limit, Clock& clock,
                                          std::string& problem) {
  UniqueFd fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  if (!fd) {
    problem = "Failed to open lock file";
    return std::nullopt;
  }
  const auto deadline = clock.Now() + limit;
  bool next = false;
  while (!(next = next || TryQueue(fd.Get(), F_WRLCK)) || !TryLock(fd.Get())) {
    if (!IsHeldByOther(errno) || clock.Now() >= deadline) {
      problem = "Failed to acquire file lock";
      return std::nullopt;
    }
    clock.SleepFor(kRetry);
  }
  (void)TryQueue(fd.Get(), F_UNLCK);
  return FileLock(std::move(fd));
}

}  // namespace varnel::utils

#include "utils/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace varnel::utils {
namespace {

constexpr std::chrono::milliseconds kRetry{2};

/// Whoever is next in the queue holds this, another lock on the same file, so that a holder that
/// comes back at once does not overtake those that wait. True also where there are no such locks.
bool TryQueue(int fd) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  return ::fcntl(fd, F_OFD_SETLK, &range) == 0 ||
         (errno != EAGAIN && errno != EACCES && errno != EINTR);
}

void LeaveQueue(int fd) {
  struct flock range {};
  range.l_type = F_UNLCK;
  range.l_whence = SEEK_SET;
  (void)::fcntl(fd, F_OFD_SETLK, &range);
}

bool TryLock(int fd, int& error) {
  error = ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
  return error == 0;
}

}  // namespace

Result<FileLock, std::string> FileLock::Acquire(const std::filesystem::path& file,
                                                std::chrono::milliseconds limit, Clock& clock) {
  UniqueFd fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  if (!fd) return std::string("Failed to open lock file");
  const auto start = clock.Now();
  int error = EWOULDBLOCK;
  // A program that knows no queue may hold the lock of the queue for ever.
  for (bool next = false;; clock.SleepFor(kRetry)) {
    next = next || TryQueue(fd.Get()) || clock.Now() - start >= limit / 2;
    if (next && TryLock(fd.Get(), error)) break;
    const bool held = error == EWOULDBLOCK || error == EINTR;
    if (!held || clock.Now() - start >= limit) {
      LeaveQueue(fd.Get());
      return std::string("Failed to acquire file lock");
    }
  }
  LeaveQueue(fd.Get());
  return FileLock(std::move(fd));
}

FileLock::~FileLock() {
  // A child that is being started may have a copy of the descriptor for a moment.
  if (file_) {
    ::flock(file_.Get(), LOCK_UN);
  }
}

}  // namespace varnel::utils

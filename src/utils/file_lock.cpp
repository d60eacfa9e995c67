#include "utils/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace varnel::utils {
namespace {

constexpr std::chrono::milliseconds kRetry{10};

bool TryLock(int fd) {
  return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
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
  while (!TryLock(fd.Get())) {
    const bool held = errno == EWOULDBLOCK || errno == EINTR;
    if (!held || clock.Now() >= deadline) {
      problem = "Failed to acquire file lock";
      return std::nullopt;
    }
    clock.SleepFor(kRetry);
  }
  return FileLock(std::move(fd));
}

}  // namespace varnel::utils

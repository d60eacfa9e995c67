#include "utils/child_process.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "utils/child_registry.h"

namespace varnel::utils {
namespace {

/// A daemon started without standard descriptors gets pipe ends below 3, which the child's set-up
/// would overwrite.
bool MoveAboveStandard(UniqueFd& fd) {
  if (fd.Get() <= STDERR_FILENO) {
    fd.Reset(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  return static_cast<bool>(fd);
}

}  // namespace

std::optional<Pipe> MakePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    return std::nullopt;
  }
  Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
  if (!MoveAboveStandard(pipe.read_end) || !MoveAboveStandard(pipe.write_end) ||
      ::fcntl(pipe.read_end.Get(), F_SETFL, O_NONBLOCK) != 0) {
    return std::nullopt;
  }
  return pipe;
}

UniqueFd OpenOutputFile(const char* path) {
  UniqueFd file(::open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file || !MoveAboveStandard(file)) {
    return {};
  }
  return file;
}

// By number: the header of Debian 12 declares the function without C linkage.
ChildProcess::ChildProcess(pid_t pid)
    : pid_(pid), ended_fd_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))) {}

ChildProcess::~ChildProcess() {
  if (!reaped_) {
    KillGroup();
    (void)Reap();
  }
}

bool ChildProcess::HasEnded() const {
  siginfo_t info{};
  const int waited = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
  return waited == 0 ? info.si_pid == pid_ : errno != EINTR;
}

void ChildProcess::KillGroup() const {
  ::kill(-pid_, SIGKILL);
  ::kill(pid_, SIGKILL);  // it may have moved to another group
}

std::optional<int> ChildProcess::Reap() {
  reaped_ = true;
  UnregisterChild(pid_);  // the number may be another process's as soon as it is waited for
  int status = 0;
  pid_t waited = -1;
  do {
    waited = ::waitpid(pid_, &status, 0);
  } while (waited < 0 && errno == EINTR);
  return waited == pid_ ? std::optional(status) : std::nullopt;
}

}  // namespace varnel::utils

#include "utils/child_process.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <system_error>
#include <thread>

#include "utils/child_registry.h"

namespace varnel::utils {
namespace {

/// The steps in the child before exec. Each step returns 0 or an errno.
class SpawnActions {
 public:
  SpawnActions() : error_(posix_spawn_file_actions_init(&actions_)), made_(error_ == 0) {}
  ~SpawnActions() {
    if (made_) {
      posix_spawn_file_actions_destroy(&actions_);
    }
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  int Build(const ChildSetup& setup) {
    Step(&posix_spawn_file_actions_addopen, STDIN_FILENO, "/dev/null", O_RDONLY, mode_t{0});
    Step(&posix_spawn_file_actions_adddup2, setup.standard_output, STDOUT_FILENO);
    Step(&posix_spawn_file_actions_adddup2, setup.standard_error, STDERR_FILENO);
    Step(&posix_spawn_file_actions_addclosefrom_np, STDERR_FILENO + 1);
    if (setup.working_dir != nullptr) {
      Step(&posix_spawn_file_actions_addchdir_np, setup.working_dir);
    }
    return error_;
  }
  const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  template <class Function, class... Args>
  void Step(Function add, Args... args) {
    if (error_ == 0) {
      error_ = add(&actions_, args...);
    }
  }

  posix_spawn_file_actions_t actions_{};
  int error_;
  bool made_;
};

class SpawnAttributes {
 public:
  SpawnAttributes() : error_(posix_spawnattr_init(&attributes_)) {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    constexpr int kFlags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    posix_spawnattr_setflags(&attributes_, static_cast<short>(kFlags));
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setsigmask(&attributes_, &none);
  }
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  int Error() const { return error_; }
  const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
  int error_;
};

/// A daemon started without standard descriptors gets pipe ends below 3, which the child's set-up
/// would overwrite.
bool MoveAboveStandard(UniqueFd& fd) {
  if (fd.Get() <= STDERR_FILENO) {
    fd.Reset(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  return static_cast<bool>(fd);
}

void LowerPriorityOfThisThread() {
  constexpr int kThisThread = 1;
  constexpr int kIdleClass = 3 << 13;
  const sched_param parameters{};
  ::sched_setscheduler(0, SCHED_IDLE, &parameters);
  ::syscall(SYS_ioprio_set, kThisThread, 0, kIdleClass);
}

/// A child inherits the priority of the thread that starts it; posix_spawn itself knows no idle
/// one.
int FromIdleThread(const std::function<int()>& spawn) {
  int error = EAGAIN;
  try {
    std::thread([&] {
      LowerPriorityOfThisThread();
      error = spawn();
    }).join();
  } catch (const std::system_error&) {
    return EAGAIN;
  }
  return error;
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

int SpawnChild(const ChildSetup& setup, pid_t& pid) {
  SpawnActions actions;
  const SpawnAttributes attributes;
  if (const int error = actions.Build(setup); error != 0) {
    return error;
  }
  if (attributes.Error() != 0) {
    return attributes.Error();
  }
  const ChildStart start;
  if (start.Refused()) {
    return EAGAIN;
  }
  const auto spawn = [&] {
    return ::posix_spawn(&pid, setup.program, actions.Get(), attributes.Get(), setup.arguments,
                         setup.environment);
  };
  const int error = setup.idle_priority ? FromIdleThread(spawn) : spawn();
  if (error == 0 && !setup.outlives_us) {
    RegisterChild(pid);
    // EndChildren() does not wait long for a start, and may have looked before.
    if (start.Refused()) {
      ::kill(-pid, SIGKILL);
    }
  }
  return error;
}

}  // namespace varnel::utils

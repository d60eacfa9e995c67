#include "utils/child_start.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "utils/child_registry.h"
#include "utils/idle_priority.h"

// What runs between the start and exec shares our memory, with the calling thread stopped: system
// calls only, and nothing that a sanitizer would keep books about.
#define VARNEL_IN_CHILD \
  [[gnu::no_sanitize_address]] [[gnu::no_sanitize_thread]] [[gnu::no_sanitize_undefined]]

/// The C library's clone() by its other name: the thread sanitizer takes a call of the first for a
/// fork, and marks our memory, which the child shares, as that of a forked process.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __clone(int (*run)(void*), void* stack, int flags, void* argument, ...) noexcept;

namespace varnel::utils {
namespace {

constexpr int kNotExecutable = 127;
constexpr int kSignals = 64;
/// Of the kernel's set of signals.
constexpr size_t kSignalSetBytes = 8;
/// For the child's few calls until exec.
constexpr size_t kStackBytes = 16384;

struct ChildStartBlock {
  const ChildSetup& setup;
  pid_t parent;
  rlim_t descriptors;  ///< a higher one cannot be open
};

/// The kernel ends the child with us. We may be gone already: then nobody would.
VARNEL_IN_CHILD bool EndsWithUs(pid_t parent) {
  return ::syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) == 0 &&
         ::syscall(SYS_getppid) == parent;
}

VARNEL_IN_CHILD void TakeDefaultSignals() {
  const unsigned long default_action[8] = {};  // at least the kernel's structure
  for (int signal = 1; signal <= kSignals; ++signal) {
    ::syscall(SYS_rt_sigaction, signal, default_action, nullptr, kSignalSetBytes);
  }
}

VARNEL_IN_CHILD bool PlaceDescriptors(const ChildSetup& setup) {
  const long null = ::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY, 0);
  const bool input = null == STDIN_FILENO ||
                     (null > 0 && ::syscall(SYS_dup3, null, STDIN_FILENO, 0) == STDIN_FILENO);
  return input && ::syscall(SYS_dup3, setup.standard_output, STDOUT_FILENO, 0) == STDOUT_FILENO &&
         ::syscall(SYS_dup3, setup.standard_error, STDERR_FILENO, 0) == STDERR_FILENO;
}

VARNEL_IN_CHILD bool EnterDirectory(const ChildSetup& setup) {
  if (setup.working_dir != nullptr) {
    return ::syscall(SYS_chdir, setup.working_dir) == 0;
  }
  return setup.working_dir_fd < 0 || ::syscall(SYS_fchdir, setup.working_dir_fd) == 0;
}

/// One by one on kernels before 5.9.
VARNEL_IN_CHILD void CloseOthers(rlim_t descriptors) {
  constexpr unsigned kFirst = STDERR_FILENO + 1;
  if (::syscall(SYS_close_range, kFirst, ~0U, 0) == 0) {
    return;
  }
  for (rlim_t fd = kFirst; fd < descriptors; ++fd) {
    ::syscall(SYS_close, fd);
  }
}

VARNEL_IN_CHILD int RunChild(void* argument) {
  const auto& block = *static_cast<const ChildStartBlock*>(argument);
  const ChildSetup& setup = block.setup;
  if ((setup.outlives_us || EndsWithUs(block.parent)) && ::syscall(SYS_setpgid, 0, 0) == 0 &&
      EnterDirectory(setup) && PlaceDescriptors(setup)) {
    TakeDefaultSignals();
    CloseOthers(block.descriptors);
    const unsigned long none = 0;
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, kSignalSetBytes);
    ::syscall(SYS_execve, setup.program, setup.arguments, setup.environment);
  }
  return kNotExecutable;
}

/// A handler of ours that ran in the child would run in our memory.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

/// Not posix_spawn: it cannot tie the child's life to ours. Returns once the child has left our
/// memory, by exec or its end; -1 with errno when there is none.
pid_t Launch(const ChildSetup& setup) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  ChildStartBlock block{setup, ::getpid(), limit.rlim_cur};
  alignas(16) char stack[kStackBytes];
  const AllSignalsBlocked blocked;
  return ::__clone(RunChild, stack + sizeof stack, CLONE_VM | CLONE_VFORK | SIGCHLD, &block);
}

}  // namespace

int SpawnChild(const ChildSetup& setup, pid_t& pid) {
  const ChildStart start;
  if (start.Refused()) {
    return EAGAIN;
  }
  pid = Launch(setup);
  if (pid < 0) {
    return errno;
  }
  // Not by the child itself: until exec we wait for it, and it could hold up both while others need
  // the processor. It has barely begun.
  if (setup.idle_priority) {
    MakeIdle(pid);
  }
  if (!setup.outlives_us) {
    RegisterChild(pid);
    // EndChildren() does not wait long for a start, and may have looked before.
    if (start.Refused()) {
      ::kill(-pid, SIGKILL);
    }
  }
  return 0;
}

}  // namespace varnel::utils

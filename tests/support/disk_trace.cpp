#include "support/disk_trace.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <optional>
#include <set>

namespace varnel::test {
namespace {

constexpr int kSystemCallStop = SIGTRAP | 0x80;

/// The call that a stopped thread is about to make, or has made, if it matters.
std::optional<DiskCall> CallOf(pid_t thread, bool made) {
  static const std::set<long> changes = {SYS_rename,  SYS_renameat, SYS_renameat2, SYS_unlink,
                                         SYS_rmdir,   SYS_linkat,   SYS_unlinkat,  SYS_mkdir,
                                         SYS_symlink, SYS_fsync,    SYS_fdatasync, SYS_ftruncate};
  const long number =
      ::ptrace(PTRACE_PEEKUSER, thread, offsetof(user_regs_struct, orig_rax), nullptr);
  if (changes.count(number) == 0) return std::nullopt;
  const long first = ::ptrace(PTRACE_PEEKUSER, thread, offsetof(user_regs_struct, rdi), nullptr);
  return DiskCall{thread, made, number == SYS_fsync || number == SYS_fdatasync,
                  static_cast<int>(first)};
}

pid_t StartTraced(const std::function<void()>& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    work();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
  ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
  return child;
}

}  // namespace

bool TraceDisk(const std::function<void()>& work,
               const std::function<void(const DiskCall& call)>& on_call) {
  const pid_t child = StartTraced(work);
  std::set<pid_t> inside;  // threads between entry and return of a call
  for (;;) {
    int status = 0;
    const pid_t thread = ::waitpid(-1, &status, __WALL);
    if (thread < 0) return false;
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      if (thread == child) return WIFEXITED(status);
      continue;
    }
    const long signal = WSTOPSIG(status);
    if (signal == kSystemCallStop) {
      const bool made = !inside.insert(thread).second;
      if (made) inside.erase(thread);
      if (const auto call = CallOf(thread, made)) on_call(*call);
    }
    const bool own = signal == kSystemCallStop || signal == SIGTRAP || signal == SIGSTOP;
    ::ptrace(PTRACE_SYSCALL, thread, nullptr, own ? 0 : signal);
  }
}

}  // namespace varnel::test

#pragma once

#include <sys/types.h>

#include <optional>

#include "utils/owned.h"

namespace varnel::utils {

/// What a child starts with; everything is built before the start and must live until SpawnChild()
/// returns.
struct ChildSetup {
  const char* program = nullptr;
  char* const* arguments = nullptr;    ///< with the program's name first and a null last
  char* const* environment = nullptr;  ///< null-terminated
  const char* working_dir = nullptr;   ///< null: ours
  int standard_output = -1;            ///< above 2, like standard_error
  int standard_error = -1;
  bool outlives_us = false;  ///< EndChildren() leaves it alone
  /// Scheduling policy SCHED_IDLE, which also means idle priority of the disk.
  bool idle_priority = false;
};

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
};

/// A close-on-exec pipe whose ends are above the standard descriptors and whose read end never
/// blocks.
[[nodiscard]] std::optional<Pipe> MakePipe();

/// A file that takes a child's output: appended to, made private to us if there is none, no link
/// followed, above the standard descriptors. Nothing when it cannot be opened.
[[nodiscard]] UniqueFd OpenOutputFile(const char* path);

/// A started child of ours. One that is not reaped yet is killed with its process group and reaped
/// at destruction, so that no way out leaves a zombie.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Readable once the child has ended; -1 where the kernel has no such descriptor (then HasEnded()
  /// is asked often).
  int EndedFd() const { return ended_fd_.Get(); }
  bool HasEnded() const;
  void KillGroup() const;
  /// Waits for the end. Nothing: the child could not be waited for.
  [[nodiscard]] std::optional<int> Reap();

 private:
  pid_t pid_;
  UniqueFd ended_fd_;
  bool reaped_ = false;
};

/// Starts the program in a process group of its own, with standard input from /dev/null, default
/// signal dispositions, nothing blocked and no other descriptor of ours. The cost does not grow
/// with our memory. Returns 0 or an errno, also that of a failed chdir or exec in the child.
[[nodiscard]] int SpawnChild(const ChildSetup& setup, pid_t& pid);

}  // namespace varnel::utils

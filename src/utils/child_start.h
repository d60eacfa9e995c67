#pragma once

#include <sys/types.h>

namespace varnel::utils {

/// What a child starts with; everything is built before the start and must live until SpawnChild()
/// returns.
struct ChildSetup {
  const char* program = nullptr;
  char* const* arguments = nullptr;    ///< with the program's name first and a null last
  char* const* environment = nullptr;  ///< null-terminated
  const char* working_dir = nullptr;   ///< null: see the next
  int working_dir_fd = -1;             ///< an open directory; -1: ours
  int standard_output = -1;            ///< above 2, like standard_error
  int standard_error = -1;
  /// The child goes on when this process ends, whatever ends it; all others end with it.
  bool outlives_us = false;
  /// Scheduling policy SCHED_IDLE and the idle class of the disk, set when the program has begun.
  bool idle_priority = false;
};

/// Starts the program in a process group of its own, with standard input from /dev/null, default
/// signal dispositions, nothing blocked and no other descriptor of ours. The cost does not grow
/// with our memory. The calling thread must live until the child was waited for: the kernel ends
/// the child with the thread that started it. Returns 0 or an errno; a child whose chdir or exec
/// fails ends with status 127.
[[nodiscard]] int SpawnChild(const ChildSetup& setup, pid_t& pid);

}  // namespace varnel::utils

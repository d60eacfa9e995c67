#pragma once

#include <sys/types.h>

#include <functional>

namespace varnel::test {

/// A system call of a traced thread that changes what is on disk, or makes it last.
struct DiskCall {
  pid_t thread = 0;
  bool made = false;   ///< or about to be
  bool sync = false;   ///< fsync or fdatasync
  int descriptor = 0;  ///< of a sync
};

/// Runs `work` in a child process, whose threads stop before and after each of their calls that
/// change the disk. Programs that it starts are not traced.
/// @return whether it came to its end
bool TraceDisk(const std::function<void()>& work,
               const std::function<void(const DiskCall& call)>& on_call);

}  // namespace varnel::test

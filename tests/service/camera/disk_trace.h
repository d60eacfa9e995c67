#pragma once

#include <sys/types.h>

#include <functional>

namespace varnel::service {

/// A system call of a traced thread that changes what is on disk, or makes it last.
struct DiskCall {
  pid_t thread = 0;
  bool sync = false;   ///< fsync or fdatasync
  int descriptor = 0;  ///< of a sync
};

/// Whether the traced process may go on; it is killed otherwise.
using OnDiskCall = std::function<bool(const DiskCall& call)>;

/// Runs `work` in a child process, whose threads stop before (`entering`) and after (`left`) each
/// of their calls that change the disk. Programs that it starts are not traced.
/// @return whether it was killed, and did not come to its end
bool TraceDisk(const std::function<void()>& work, const OnDiskCall& entering,
               const OnDiskCall& left);

}  // namespace varnel::service

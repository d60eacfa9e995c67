#pragma once

#include <sys/types.h>

#include <optional>

#include "utils/owned.h"

namespace varnel::utils {

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

}  // namespace varnel::utils

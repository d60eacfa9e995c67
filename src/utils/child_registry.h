#pragma once

#include <sys/types.h>

namespace varnel::utils {

/// Held while a child is being started, so that EndChildren() misses none.
class ChildStart {
 public:
  ChildStart();
  ~ChildStart();
  ChildStart(const ChildStart&) = delete;
  ChildStart& operator=(const ChildStart&) = delete;

  /// The process is ending, no child may be started any more.
  bool Refused() const;
};

/// From its start until just before it is waited for a child is in the register. A child that finds
/// no room in it is not ended with us; there is room for far more than ever run.
void RegisterChild(pid_t pid);
void UnregisterChild(pid_t pid);

/// For the ways out of the process that run no destructors: kills every registered child with its
/// process group and lets no other be started. Takes no lock, so a signal handler may call it.
void EndChildren();

}  // namespace varnel::utils

#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace varnel::test {

/// While it lives, no file of this process gets longer than this: the disk is full.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) : before_signal_(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit full{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &full);
  }
  ~FullDisk() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    ::signal(SIGXFSZ, before_signal_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  const sighandler_t before_signal_;
  rlimit before_{};
};

}  // namespace varnel::test

#pragma once

#include <signal.h>
#include <sys/resource.h>

#include <optional>
#include <utility>

namespace varnel::test {

/// A smaller limit of this process while it lives.
class ResourceLimit {
 public:
  ResourceLimit(__rlimit_resource resource, rlim_t limit) : resource_(resource) {
    ::getrlimit(resource_, &before_);
    const rlimit now{limit, before_.rlim_max};
    ::setrlimit(resource_, &now);
  }
  ~ResourceLimit() { ::setrlimit(resource_, &before_); }
  ResourceLimit(const ResourceLimit&) = delete;
  ResourceLimit& operator=(const ResourceLimit&) = delete;

 private:
  const __rlimit_resource resource_;
  rlimit before_{};
};

/// While it lives, no file of this process gets longer than this: the disk is full.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes)
      : before_signal_(::signal(SIGXFSZ, SIG_IGN)), limit_(std::in_place, RLIMIT_FSIZE, bytes) {}
  ~FullDisk() {
    limit_.reset();
    ::signal(SIGXFSZ, before_signal_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  const sighandler_t before_signal_;
  std::optional<ResourceLimit> limit_;
};

}  // namespace varnel::test

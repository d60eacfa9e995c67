#pragma once

#include <cstdint>

#include "utils/mutex.h"

namespace varnel::comms {

/// What is not sent while the cloud link is down: one line when it begins, one with the count when
/// the link is used again. Thread-safe.
class CloudOutage {
 public:
  void Drop();
  void Over();

 private:
  utils::Mutex mutex_;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
};

}  // namespace varnel::comms

#pragma once

#include <cstdint>
#include <mutex>

namespace varnel::comms {

/// What is not sent while the cloud link is down: one line when it begins, one with the count when
/// the link is used again. Thread-safe.
class CloudOutage {
 public:
  void Drop();
  void Over();

 private:
  std::mutex mutex_;
  uint64_t dropped_ = 0;  // guarded by mutex_
};

}  // namespace varnel::comms

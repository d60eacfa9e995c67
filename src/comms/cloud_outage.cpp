#include "comms/cloud_outage.h"

#include "utils/log.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "COMMS";

}  // namespace

void CloudOutage::Drop() {
  const utils::MutexLock lock(mutex_);
  if (dropped_++ == 0) VLOG_WARN(kTag, "The cloud link is down, messages for it are dropped");
}

void CloudOutage::Over() {
  const utils::MutexLock lock(mutex_);
  if (dropped_ == 0) return;
  VLOG_WARN(kTag, "The cloud link is up again, {} messages for it were dropped", dropped_);
  dropped_ = 0;
}

}  // namespace varnel::comms

#include "comms/name_lookups.h"

#include <atomic>
#include <utility>

#include "utils/thread.h"

namespace varnel::comms {

bool NameLookups::Start(const std::string& host, Done done) {
  const utils::MutexLock lock(mutex_);
  running_.remove_if([](const Running& lookup) { return lookup.over->load(); });
  if (running_.size() >= kMaxRunning) return false;
  auto over = std::make_shared<std::atomic<bool>>(false);
  running_.push_back(
      {over, utils::SpawnGuarded("mqtt-lookup", "MQTT", [this, host, over, done = std::move(done)] {
         done(api_.LookUp(host));
         *over = true;
       })});
  return true;
}

}  // namespace varnel::comms

#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comms/paho_async_api.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// Looks host names up on threads of its own: nobody waits for a name server, and nobody can
/// interrupt the wait for one. Thread-safe.
class NameLookups {
 public:
  /// As many may wait for a silent name server at one time.
  static constexpr size_t kMaxRunning = 4;
  using Done = std::function<void(const NameAddresses&)>;

  explicit NameLookups(PahoAsyncApi& api) : api_(api) {}
  /// Waits for those that run, as long as the resolver's own limits let them.
  ~NameLookups() = default;
  NameLookups(const NameLookups&) = delete;
  NameLookups& operator=(const NameLookups&) = delete;

  /// `done` gets the answer on the look-up's thread. False when too many run already.
  bool Start(const std::string& host, Done done);

 private:
  struct Running {
    std::shared_ptr<std::atomic<bool>> over;
    std::jthread thread;
  };

  PahoAsyncApi& api_;
  utils::Mutex mutex_;
  std::list<Running> running_ GUARDED_BY(mutex_);
};

}  // namespace varnel::comms

#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include "comms/comms_manager.h"
#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::app {

/// Where the local broker is and who we are there.
struct LocalBroker {
  std::string host = "127.0.0.1";
  std::string port = "1883";
  std::string identity = "varnel";
};

/// The main thread after the services have started: connects the local link, keeps it connected,
/// and returns when a shutdown is requested.
class Supervisor {
 public:
  static constexpr std::chrono::seconds kConnectWait{10};
  static constexpr std::chrono::milliseconds kConnectPoll{100};
  static constexpr std::chrono::seconds kSettle{1};
  static constexpr std::chrono::seconds kPeriod{3};
  /// A signal wakes nobody: the flag is looked at this often within a wait.
  static constexpr std::chrono::milliseconds kFlagPoll{500};

  Supervisor(comms::CommsManager& comms, std::function<bool()> shutdown_requested,
             utils::Clock& clock = utils::SystemClock::Instance());

  void ConnectLocal(const LocalBroker& broker);
  void Run();

 private:
  void AwaitLocal();
  /// False when a shutdown was requested meanwhile.
  bool WaitFor(std::chrono::milliseconds time);

  comms::CommsManager& comms_;
  const std::function<bool()> shutdown_requested_;
  utils::Clock& clock_;

  /// Shared with the manager's callback, which may come after this object has ended.
  const std::shared_ptr<std::atomic<bool>> reconnect_needed_ =
      std::make_shared<std::atomic<bool>>(false);
  utils::Mutex mutex_;     // for the timed waits only, like the condition
  utils::Condition wake_;  // that nobody notifies
};

}  // namespace varnel::app

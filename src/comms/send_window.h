#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// What the MQTT library may hold of our messages at one time: so many bytes, and so many
/// unacknowledged messages that the broker's receive maximum is not reached, because the library
/// sleeps for up to a second there. Thread-safe.
class SendWindow {
 public:
  static constexpr size_t kMaxBytes = size_t{64} << 20;
  /// MQTT 5.0, section 3.2.2.3.3: what holds when the broker names none.
  static constexpr size_t kDefaultReceiveMaximum = 65'535;

  explicit SendWindow(utils::Clock& clock) : clock_(clock) {}

  /// A new connection: nothing of an earlier one is waited for any more.
  void Open(size_t receive_maximum);

  /// The number of a message that the library may have now; waits for room until the deadline. One
  /// message alone always has room. Nothing when there was none in time.
  std::optional<uint32_t> Enter(size_t bytes, bool acknowledged, utils::Clock::TimePoint deadline);
  /// The library has done with this message. Numbers that are not inside are ignored.
  void Leave(uint32_t number);
  /// Waits until a message has left since `seen`, or the deadline.
  void AwaitLeave(uint64_t seen, utils::Clock::TimePoint deadline);
  /// How many have left so far.
  uint64_t Left() const;

 private:
  struct Inside {
    size_t bytes;
    bool acknowledged;
  };

  bool HasRoom(size_t bytes, bool acknowledged) const REQUIRES(mutex_);

  utils::Clock& clock_;
  mutable utils::Mutex mutex_;
  utils::Condition changed_;
  std::map<uint32_t, Inside> inside_ GUARDED_BY(mutex_);
  size_t bytes_ GUARDED_BY(mutex_) = 0;
  size_t unacknowledged_ GUARDED_BY(mutex_) = 0;
  size_t max_unacknowledged_ GUARDED_BY(mutex_) = kDefaultReceiveMaximum;
  uint32_t last_number_ GUARDED_BY(mutex_) = 0;
  uint64_t left_ GUARDED_BY(mutex_) = 0;
};

}  // namespace varnel::comms

#pragma once

#include <cstdint>
#include <optional>

#include "comms/link_event.h"
#include "comms/mqtt_connect_settings.h"
#include "comms/status.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// Where the link of one client stands, and the only place where that changes: each operation is
/// one transition, and tells whether it took place. Thread-safe.
class LinkState {
 public:
  struct Begun {
    CommsStatus status;               ///< kOk, kBusy, or kNotInitialized
    uint32_t attempt = 0;             ///< with kOk
    std::optional<uint32_t> ended{};  ///< the link that this attempt replaces
  };

  /// A new attempt with these settings, which are kept. kBusy while one runs, kNotInitialized once
  /// closed.
  Begun Begin(const MqttConnectSettings& settings);
  /// A new attempt with the kept settings, unless the link is up; kNotInitialized without any.
  Begun BeginAgain();

  /// The broker has accepted: its acknowledgements of subscriptions are awaited, first of all the
  /// one that Acknowledged() is called for when every subscription has been asked for.
  bool Accept(uint32_t attempt);
  /// One more acknowledgement to wait for; false unless the broker has accepted this attempt.
  bool ExpectAcknowledgement(uint32_t attempt);
  /// True when nothing is left to wait for and the link is up by that.
  bool Acknowledged(uint32_t attempt);
  /// The attempt failed or its link is lost; nothing when it is over already.
  std::optional<LinkEvent::Kind> Drop(uint32_t attempt);

  /// The end is wanted: nothing of the attempt that runs counts any more. Its number, if there is
  /// one.
  std::optional<uint32_t> End();
  /// The end is done, another attempt may begin.
  void Ended();
  /// Like End(), and no attempt ever begins again.
  std::optional<uint32_t> Close();

  LinkPhase Phase() const;
  bool Ending() const;
  /// The attempt that runs or whose link is up; 0 without one.
  uint32_t Current() const;
  /// The broker has accepted this attempt, and its link is not over.
  bool IsLive(uint32_t attempt) const;
  /// The settings of an attempt that is not over.
  std::optional<MqttConnectSettings> Settings(uint32_t attempt) const;

 private:
  enum class Stage { kDown, kConnecting, kAccepted, kUp, kEnding };

  Begun BeginLocked() REQUIRES(mutex_);
  std::optional<uint32_t> EndLocked() REQUIRES(mutex_);
  bool Is(uint32_t attempt, Stage stage) const REQUIRES(mutex_) {
    return attempt_ == attempt && stage_ == stage;
  }
  bool IsLiveLocked(uint32_t attempt) const REQUIRES(mutex_) {
    return Is(attempt, Stage::kUp) || Is(attempt, Stage::kAccepted);
  }
  bool Runs() const REQUIRES(mutex_) { return stage_ != Stage::kDown && stage_ != Stage::kEnding; }

  mutable utils::Mutex mutex_;
  Stage stage_ GUARDED_BY(mutex_) = Stage::kDown;
  bool closed_ GUARDED_BY(mutex_) = false;
  uint32_t attempt_ GUARDED_BY(mutex_) = 0;  // the newest
  uint32_t awaited_ GUARDED_BY(mutex_) = 0;  // acknowledgements
  std::optional<MqttConnectSettings> settings_ GUARDED_BY(mutex_);
};

}  // namespace varnel::comms

#include "comms/link_state.h"

namespace varnel::comms {

LinkState::Begun LinkState::Begin(const MqttConnectSettings& settings) {
  const utils::MutexLock lock(mutex_);
  const Begun begun = BeginLocked();
  if (begun.status == CommsStatus::kOk) settings_ = settings;
  return begun;
}

LinkState::Begun LinkState::BeginAgain() {
  const utils::MutexLock lock(mutex_);
  if (!settings_ && !Runs()) return {CommsStatus::kNotInitialized};
  if (stage_ == Stage::kUp) return {CommsStatus::kOk};
  return BeginLocked();
}

LinkState::Begun LinkState::BeginLocked() {
  if (closed_) return {CommsStatus::kNotInitialized};
  if (stage_ != Stage::kDown && stage_ != Stage::kUp) return {CommsStatus::kBusy};
  const auto ended = stage_ == Stage::kUp ? std::optional(attempt_) : std::nullopt;
  stage_ = Stage::kConnecting;
  return {CommsStatus::kOk, ++attempt_, ended};
}

bool LinkState::Accept(uint32_t attempt) {
  const utils::MutexLock lock(mutex_);
  if (!Is(attempt, Stage::kConnecting)) return false;
  stage_ = Stage::kAccepted;
  awaited_ = 1;
  return true;
}

bool LinkState::ExpectAcknowledgement(uint32_t attempt) {
  const utils::MutexLock lock(mutex_);
  if (!IsLiveLocked(attempt)) return false;
  ++awaited_;
  return true;
}

bool LinkState::Acknowledged(uint32_t attempt) {
  const utils::MutexLock lock(mutex_);
  if (attempt_ != attempt || awaited_ == 0) return false;
  if (--awaited_ > 0 || stage_ != Stage::kAccepted) return false;
  stage_ = Stage::kUp;
  return true;
}

std::optional<LinkEvent::Kind> LinkState::Drop(uint32_t attempt) {
  const utils::MutexLock lock(mutex_);
  if (attempt_ != attempt || !Runs()) return std::nullopt;
  const auto kind = stage_ == Stage::kUp ? LinkEvent::Kind::kLost : LinkEvent::Kind::kFailed;
  stage_ = Stage::kDown;
  return kind;
}

std::optional<uint32_t> LinkState::End() {
  const utils::MutexLock lock(mutex_);
  return EndLocked();
}

std::optional<uint32_t> LinkState::EndLocked() {
  settings_.reset();
  const auto ended = Runs() ? std::optional(attempt_) : std::nullopt;
  stage_ = Stage::kEnding;
  return ended;
}

void LinkState::Ended() {
  const utils::MutexLock lock(mutex_);
  if (stage_ == Stage::kEnding) stage_ = Stage::kDown;
}

std::optional<uint32_t> LinkState::Close() {
  const utils::MutexLock lock(mutex_);
  closed_ = true;
  return EndLocked();
}

LinkPhase LinkState::Phase() const {
  const utils::MutexLock lock(mutex_);
  switch (stage_) {
    case Stage::kConnecting:
    case Stage::kAccepted:
      return LinkPhase::kConnecting;
    case Stage::kUp:
      return LinkPhase::kUp;
    case Stage::kDown:
    case Stage::kEnding:
      break;
  }
  return LinkPhase::kDown;
}

bool LinkState::Ending() const {
  const utils::MutexLock lock(mutex_);
  return stage_ == Stage::kEnding;
}

uint32_t LinkState::Current() const {
  const utils::MutexLock lock(mutex_);
  return Runs() ? attempt_ : 0;
}

bool LinkState::IsLive(uint32_t attempt) const {
  const utils::MutexLock lock(mutex_);
  return IsLiveLocked(attempt);
}

std::optional<MqttConnectSettings> LinkState::Settings(uint32_t attempt) const {
  const utils::MutexLock lock(mutex_);
  return attempt_ == attempt && Runs() ? settings_ : std::nullopt;
}

}  // namespace varnel::comms

#include "hal_adapter/hal_event.h"

#include <exception>

#include "utils/log.h"
#include "utils/log_printf.h"
#include "utils/thread.h"

namespace varnel::hal_adapter {
namespace {

constexpr const char* kTag = "HALEVT";

/// A callback is foreign code: what it throws ends here and not the dispatch thread.
void CallGuarded(HalEventCallback callback, const HalEventRecord& event, void* user_data) {
  try {
    callback(&event, user_data);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Callback of event type {} failed: {}", event.type, error.what());
  } catch (...) {
    VLOG_ERROR(kTag, "Callback of event type {} failed", event.type);
  }
}

}  // namespace

HALEvent::HALEvent()
    : dispatcher_(utils::SpawnGuarded("hal-event", kTag, [this] { Dispatch(); })) {}

HALEvent::~HALEvent() {
  Stop();
}

HALEvent& HALEvent::Instance() {
  static HALEvent instance;
  return instance;
}

HalStatus HALEvent::Post(const HalEventRecord* event) {
  if (event == nullptr) return HalStatus::kInvalidParameter;
  {
    const utils::MutexLock lock(queue_mutex_);
    if (queue_.size() < kMaxQueued) {
      queue_.push_back(*event);
      queue_.back().payload[sizeof(event->payload) - 1] = '\0';
      queue_filled_.NotifyOne();
      return HalStatus::kSuccess;
    }
  }
  PLOG_WARN(kTag, "Event queue full, dropping event type is %d", static_cast<int>(event->type));
  return HalStatus::kHardwareError;
}

HalStatus HALEvent::RegisterCallback(uint32_t type, HalEventCallback callback, void* user_data) {
  if (callback == nullptr) return HalStatus::kInvalidParameter;
  const utils::MutexLock lock(callback_mutex_);
  callbacks_[type].emplace_back(callback, user_data);
  return HalStatus::kSuccess;
}

void HALEvent::Stop() {
  {
    // Under the mutex, so that the dispatcher cannot miss it between its check and its wait.
    const utils::MutexLock lock(queue_mutex_);
    running_ = false;
  }
  queue_filled_.NotifyAll();
  if (!dispatcher_.joinable()) return;
  dispatcher_.join();
  VLOG_INFO(kTag, "Event dispatch thread stopped");
}

void HALEvent::Dispatch() {
  VLOG_INFO(kTag, "Event dispatch thread started");
  HalEventRecord event{};
  while (WaitForEvent(event)) Deliver(event);
}

bool HALEvent::WaitForEvent(HalEventRecord& event) {
  utils::MutexLock lock(queue_mutex_);
  queue_filled_.Wait(lock,
                     [this]() REQUIRES(queue_mutex_) { return !queue_.empty() || !running_; });
  if (!running_) return false;
  event = queue_.front();
  queue_.pop_front();
  return true;
}

void HALEvent::Deliver(const HalEventRecord& event) {
  const std::vector<Callback> callbacks = CallbacksOf(event.type);
  if (callbacks.empty()) {
    PLOG_DEBUG(kTag, "No callback registered for event type %d", static_cast<int>(event.type));
  }
  for (const auto& [callback, user_data] : callbacks) CallGuarded(callback, event, user_data);
}

std::vector<HALEvent::Callback> HALEvent::CallbacksOf(uint32_t type) {
  const utils::MutexLock lock(callback_mutex_);
  const auto found = callbacks_.find(type);
  return found == callbacks_.end() ? std::vector<Callback>{} : found->second;
}

HalStatus post_hal_event(const HalEventRecord* event) {
  return HALEvent::Instance().Post(event);
}

HalStatus register_hal_event_callback(uint32_t type, HalEventCallback callback, void* user_data) {
  return HALEvent::Instance().RegisterCallback(type, callback, user_data);
}

}  // namespace varnel::hal_adapter

#include "comms/client_mqtt_base.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "comms/topic_filter.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "MQTT";

}  // namespace

ClientMqttBase::ClientMqttBase(std::string name)
    : name_(std::move(name)),
      processing_thread_(utils::SpawnGuarded(
          "mqtt-listeners", kTag, [this](const std::stop_token&) { ProcessMessages(); })) {}

ClientMqttBase::~ClientMqttBase() {
  StopProcessing();
}

void ClientMqttBase::StopProcessing() {
  queue_.Close();
  if (processing_thread_.joinable()) processing_thread_.join();
}

CommsStatus ClientMqttBase::AddListener(const std::string& filter, Listener listener) {
  if (filter.empty() || !listener) return CommsStatus::kInvalidArgument;
  {
    const utils::MutexLock lock(listeners_mutex_);
    const auto [entry, added] = listeners_.try_emplace(filter);
    entry->second.swap(listener);  // the old one ends outside the lock: it is foreign code
    if (!added) VLOG_WARN(kTag, "{}: topic {} already has a listener, overwriting", name_, filter);
  }
  return Subscribe(filter);
}

void ClientMqttBase::RemoveListener(const std::string& filter) {
  std::map<std::string, Listener, std::less<>>::node_type removed;
  {
    const utils::MutexLock lock(listeners_mutex_);
    removed = listeners_.extract(filter);
  }
  if (removed) Unsubscribe(filter);
  utils::MutexLock lock(listeners_mutex_);
  if (std::this_thread::get_id() == processing_thread_.get_id() || delivering_ != filter) return;
  delivered_.Wait(lock, [this, seen = deliveries_]()
                            REQUIRES(listeners_mutex_) { return deliveries_ != seen; });
}

void ClientMqttBase::SetLinkCallback(LinkCallback callback) {
  const utils::MutexLock lock(listeners_mutex_);
  link_changed_ = std::move(callback);
}

void ClientMqttBase::SetConnectionLostCallback(ConnectionLostCallback callback) {
  const utils::MutexLock lock(listeners_mutex_);
  connection_lost_ = std::move(callback);
}

std::vector<std::string> ClientMqttBase::ListenerFilters() const {
  const utils::MutexLock lock(listeners_mutex_);
  std::vector<std::string> filters;
  filters.reserve(listeners_.size());
  for (const auto& [filter, listener] : listeners_) filters.push_back(filter);
  return filters;
}

/// A callback that throws costs neither the other one nor the thread that reports.
template <class Callback, class... Args>
void ClientMqttBase::CallGuarded(const Callback& callback, const Args&... args) const {
  try {
    if (callback) callback(args...);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "{}: exception in link callback: {}", name_, utils::LogText(error.what()));
  } catch (...) {
    VLOG_ERROR(kTag, "{}: exception in link callback: {}", name_, "unknown");
  }
}

void ClientMqttBase::Report(const LinkEvent& event) {
  ConnectionLostCallback lost;
  LinkCallback changed;
  {
    const utils::MutexLock lock(listeners_mutex_);
    lost = connection_lost_;
    changed = link_changed_;
  }
  CallGuarded(changed, event);
  const bool down = event.kind == LinkEvent::Kind::kFailed || event.kind == LinkEvent::Kind::kLost;
  if (down) CallGuarded(lost);
}

void ClientMqttBase::Enqueue(std::shared_ptr<MqttMessage> message) {
  const size_t bytes = message ? message->topic.size() + message->payload.size() : 0;
  queue_.Push(std::move(message), bytes, [this](size_t queued) {
    VLOG_WARN(kTag, "{}: queue full ({} messages), dropping oldest", name_, queued);
  });
}

void ClientMqttBase::Accept(uint32_t link, const char* topic, int topic_length, const void* bytes,
                            int length, bool retained) {
  if (!topic) {
    VLOG_ERROR(kTag, "{}: invalid topic (null), length {}", name_, topic_length);
    return;
  }
  auto message = std::make_shared<MqttMessage>();
  message->retained = retained;
  message->link = link;
  message->topic = topic_length > 0 ? std::string(topic, static_cast<size_t>(topic_length)) : topic;
  if (length < 0 || (length > 0 && !bytes)) {
    VLOG_ERROR(kTag, "{}: invalid message on topic {}", name_, utils::LogText(message->topic));
    return;
  }
  if (length > 0)
    message->payload.assign(static_cast<const char*>(bytes), static_cast<size_t>(length));
  Enqueue(std::move(message));
}

void ClientMqttBase::ProcessMessages() {
  while (const auto message = queue_.Pop()) {
    try {
      Deliver(*message);
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "{}: a message was lost: {}", name_, utils::LogText(error.what()));
    }
  }
}

void ClientMqttBase::Deliver(const std::shared_ptr<MqttMessage>& message) {
  if (!message) {
    VLOG_ERROR(kTag, "{}: popped null message from queue", name_);
    return;
  }
  if (message->payload.empty()) {
    VLOG_WARN(kTag, "{}: message payload is empty, skipping", name_);
    return;
  }
  Listener listener = TakeListener(message->topic);
  if (!listener) {
    VLOG_WARN(kTag, "{}: no listener for topic: {}", name_, utils::LogText(message->topic));
    return;
  }
  try {
    listener(message);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "{}: exception in listener callback: {}", name_, utils::LogText(error.what()));
  } catch (...) {
    VLOG_ERROR(kTag, "{}: exception in listener callback: {}", name_, "unknown");
  }
  listener = nullptr;  // what it holds is free before anybody is told that it no longer runs
  FinishDelivery();
}

ClientMqttBase::Listener ClientMqttBase::TakeListener(const std::string& topic) {
  const utils::MutexLock lock(listeners_mutex_);
  const auto found = std::find_if(listeners_.begin(), listeners_.end(), [&](const auto& entry) {
    return HasWildcard(entry.first) && TopicMatches(entry.first, topic);
  });
  const auto exact = listeners_.find(topic);
  const auto& chosen = exact != listeners_.end() ? exact : found;
  if (chosen == listeners_.end()) return nullptr;
  delivering_ = chosen->first;
  return chosen->second;
}

void ClientMqttBase::FinishDelivery() {
  {
    const utils::MutexLock lock(listeners_mutex_);
    delivering_.clear();
    ++deliveries_;
  }
  delivered_.NotifyAll();
}

}  // namespace varnel::comms

#include "comms/forwarder_pool.h"

#include <exception>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/thread.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "FWDP";

}  // namespace

ForwarderPool::~ForwarderPool() = default;

void ForwarderPool::Stop() {
  utils::MutexLock lock(mutex_);
  for (size_t i = 0; i < queues_.size(); ++i) {
    Queue* queue = queues_[i].get();
    lock.unlock();  // a delivery may forward
    queue->Stop();
    lock.lock();
  }
}

ForwarderPool::QueueId ForwarderPool::CreateQueue(const std::string& name) {
  auto queue = std::make_unique<Queue>(name);
  const utils::MutexLock lock(mutex_);
  queues_.push_back(std::move(queue));
  return queues_.size() - 1;
}

void ForwarderPool::Forward(QueueId queue, std::shared_ptr<MqttMessage> message,
                            std::shared_ptr<ForwardDestination> destination) {
  Queue* target = nullptr;
  {
    const utils::MutexLock lock(mutex_);
    if (queue < queues_.size()) target = queues_[queue].get();
  }
  if (target) target->Push({std::move(message), std::move(destination)});
}

ForwarderPool::Queue::Queue(std::string name)
    : name_(std::move(name)),
      thread_(
          utils::SpawnGuarded("fwd-" + name_, kTag, [this](const std::stop_token&) { Run(); })) {}

ForwarderPool::Queue::~Queue() {
  Stop();
}

void ForwarderPool::Queue::Stop() {
  items_.Close();
  if (thread_.joinable()) thread_.join();
}

void ForwarderPool::Queue::Push(Item item) {
  const size_t bytes = item.message ? item.message->payload.size() : 0;
  items_.Push(std::move(item), bytes, [this](size_t queued) {
    VLOG_WARN(kTag, "ForwarderPool: queue {} full ({} messages), dropping oldest", name_, queued);
  });
}

void ForwarderPool::Queue::Run() {
  while (const auto item = items_.Pop()) {
    try {
      DeliverOne(*item);
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "ForwarderPool: delivery failed: {}", utils::LogText(error.what()));
    } catch (...) {
      VLOG_ERROR(kTag, "ForwarderPool: delivery failed: {}", "unknown");
    }
  }
}

void ForwarderPool::Queue::DeliverOne(const Item& item) {
  if (!item.message || item.message->payload.empty()) {
    VLOG_WARN(kTag, "ForwarderPool: empty payload, skipping");
    return;
  }
  if (!item.destination) {
    VLOG_WARN(kTag, "ForwarderPool: null destination, dropping message");
    return;
  }
  if (const CommsStatus status = item.destination->Deliver(*item.message);
      status != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "ForwarderPool: send failed, rc={}", Code(status));
  }
}

}  // namespace varnel::comms

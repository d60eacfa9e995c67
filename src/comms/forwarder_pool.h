#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comms/drop_oldest_queue.h"
#include "comms/mqtt_message.h"
#include "comms/status.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// Where a forwarded message goes.
class ForwardDestination {
 public:
  virtual ~ForwardDestination() = default;
  /// Runs on the queue's thread; may wait a bounded time.
  virtual CommsStatus Deliver(const MqttMessage& message) = 0;
};

/// Carries messages from one broker's listeners to another destination without making the listeners
/// wait: bounded queues, each with a thread of its own, in order within a queue. Thread-safe.
class ForwarderPool {
 public:
  using QueueId = size_t;

  /// Ends every queue's thread; what is forwarded from then on is dropped.
  void Stop();

  ForwarderPool() = default;
  /// Stops every queue; what has not been delivered is dropped.
  ~ForwarderPool();
  ForwarderPool(const ForwarderPool&) = delete;
  ForwarderPool& operator=(const ForwarderPool&) = delete;

  /// Starts one more queue; `name` appears in log lines and names the thread.
  QueueId CreateQueue(const std::string& name);

  /// Queues a message; a full queue drops its oldest with a warning.
  void Forward(QueueId queue, std::shared_ptr<MqttMessage> message,
               std::shared_ptr<ForwardDestination> destination);

 private:
  struct Item {
    std::shared_ptr<MqttMessage> message;
    std::shared_ptr<ForwardDestination> destination;
  };

  class Queue {
   public:
    explicit Queue(std::string name);
    ~Queue();
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    void Push(Item item);
    void Stop();

   private:
    void Run();
    static void DeliverOne(const Item& item);

    const std::string name_;
    DropOldestQueue<Item> items_;
    std::jthread thread_;  // last: starts when the rest is complete
  };

  utils::Mutex mutex_;
  std::vector<std::unique_ptr<Queue>> queues_
      GUARDED_BY(mutex_);  // entries live as long as the pool
};

}  // namespace varnel::comms

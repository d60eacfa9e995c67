#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "comms/drop_oldest_queue.h"
#include "comms/link_event.h"
#include "comms/mqtt_connect_settings.h"
#include "comms/mqtt_message.h"
#include "comms/status.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// What both MQTT clients share: one listener per topic filter, a bounded queue of received
/// messages, and one thread that hands them to the listeners, so that the library's threads never
/// run application code. All operations may be called from any thread but the library's; listeners
/// of one client never run concurrently with each other.
class ClientMqttBase {
 public:
  using Listener = std::function<void(const std::shared_ptr<MqttMessage>&)>;
  using ConnectionLostCallback = std::function<void()>;
  using LinkCallback = std::function<void(const LinkEvent&)>;

  ClientMqttBase(const ClientMqttBase&) = delete;
  ClientMqttBase& operator=(const ClientMqttBase&) = delete;
  virtual ~ClientMqttBase();

  /// MQTT 5.0, section 1.5.5: no packet is longer.
  static constexpr size_t kMaxMqttPayload = 268'435'455;
  /// MQTT 5.0, section 1.5.4. The library would cut the length of a longer topic to 16 bits and so
  /// spoil the whole stream.
  static constexpr size_t kMaxMqttTopic = 65'535;

  /// Connects with these settings and keeps them for Reconnect(); a link that is up ends. kOk:
  /// started (asynchronous client) or done (synchronous client). kBusy while an attempt runs,
  /// kNotInitialized after Close(). The outcome of what was started is reported as a LinkEvent.
  virtual CommsStatus Connect(const MqttConnectSettings& settings) = 0;
  /// Connects again with the kept settings; does nothing while connected.
  virtual CommsStatus Reconnect() = 0;
  /// Ends the connection, or the attempt to connect, and forgets the settings. Returns within a few
  /// seconds whatever the broker does.
  virtual void Disconnect() = 0;
  /// Starts what Disconnect() does and returns; nothing connects ever again.
  virtual void Close() = 0;
  /// Waits for the end that Close() started, as long as Disconnect() would.
  virtual void AwaitClosed() = 0;
  /// Hands a message to the library. May wait a bounded time for room in the library's buffer.
  virtual CommsStatus Send(const std::string& topic, Qos qos, bool retain,
                           std::string_view payload) = 0;
  /// Like Send(), but only over the link that bears this number: kNotConnected once it has ended.
  virtual CommsStatus SendOn(uint32_t link, const std::string& topic, Qos qos,
                             std::string_view payload) = 0;

  virtual LinkPhase Phase() const = 0;
  /// The link of this number, which what has arrived over it bears, is not over.
  virtual bool IsLive(uint32_t link) const = 0;
  bool IsConnected() const { return Phase() == LinkPhase::kUp; }
  const std::string& Name() const { return name_; }

  /// Stores (or replaces) the listener of a topic filter, which is subscribed now if connected and
  /// after every (re)connect. kInvalidArgument for an empty filter or listener; kFailure when
  /// subscribing now failed.
  CommsStatus AddListener(const std::string& filter, Listener listener);
  /// Takes a listener away and waits until it no longer runs (not when called by a listener
  /// itself). The filter is no longer subscribed; what is still on its way is logged and dropped.
  void RemoveListener(const std::string& filter);
  /// Called on a thread of this client's for each LinkEvent; must not block or call this client.
  void SetLinkCallback(LinkCallback callback);
  /// The same for a link that was lost and an attempt that failed only.
  void SetConnectionLostCallback(ConnectionLostCallback callback);

 protected:
  explicit ClientMqttBase(std::string name);

  /// Subscribes one filter if there is a connection to do it on.
  virtual CommsStatus Subscribe(const std::string& filter) = 0;
  /// Ends the subscription of one filter if there is a connection that has it. A failure is logged:
  /// it ends with the connection at the latest.
  virtual void Unsubscribe(const std::string& filter) = 0;

  /// For the library's arrival callbacks: copies what arrived over this link and queues it,
  /// dropping the oldest when the queue is full. `topic_length` 0: the topic ends at its NUL. A
  /// topic or message that cannot be used is logged.
  void Accept(uint32_t link, const char* topic, int topic_length, const void* bytes, int length,
              bool retained = false);
  void Report(const LinkEvent& event);
  std::vector<std::string> ListenerFilters() const;
  /// Every derived destructor calls this first, so that no listener runs while its object comes
  /// apart.
  void StopProcessing();

 private:
  void Enqueue(std::shared_ptr<MqttMessage> message);
  void ProcessMessages();
  void Deliver(const std::shared_ptr<MqttMessage>& message);
  Listener TakeListener(const std::string& topic);
  void FinishDelivery();
  template <class Callback, class... Args>
  void CallGuarded(const Callback& callback, const Args&... args) const;

  const std::string name_;

  mutable utils::Mutex listeners_mutex_;
  std::map<std::string, Listener, std::less<>> listeners_ GUARDED_BY(listeners_mutex_);
  ConnectionLostCallback connection_lost_ GUARDED_BY(listeners_mutex_);
  LinkCallback link_changed_ GUARDED_BY(listeners_mutex_);
  std::string delivering_ GUARDED_BY(listeners_mutex_);   // the filter whose listener runs
  uint64_t deliveries_ GUARDED_BY(listeners_mutex_) = 0;  // that have ended
  utils::Condition delivered_;

  DropOldestQueue<std::shared_ptr<MqttMessage>> queue_;

  std::jthread processing_thread_;  // last: starts when the rest is complete
};

}  // namespace varnel::comms

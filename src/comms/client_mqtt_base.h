#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "comms/drop_oldest_queue.h"
#include "comms/mqtt_message.h"
#include "comms/status.h"

namespace varnel::comms {

/// Everything one connection to a broker needs. The link is secure when any certificate path is
/// given.
struct MqttConnectSettings {
  std::string host{};
  std::string port{};
  std::string client_id{};
  int keep_alive_s = 30;
  std::string client_certificate{};  ///< path of a PEM file, like the next two
  std::string client_key{};
  std::string root_ca{};
  std::string user_name{};  ///< not sent when empty, like the password
  std::string password{};
  int connect_timeout_s = 10;

  bool Secure() const {
    return !client_certificate.empty() || !client_key.empty() || !root_ca.empty();
  }
};

/// What both MQTT clients share: one listener per topic filter, a bounded queue of received
/// messages, and one thread that hands them to the listeners, so that the library's threads never
/// run application code. All operations may be called from any thread but the library's; listeners
/// of one client never run concurrently with each other.
class ClientMqttBase {
 public:
  using Listener = std::function<void(const std::shared_ptr<MqttMessage>&)>;
  using ConnectionLostCallback = std::function<void()>;

  ClientMqttBase(const ClientMqttBase&) = delete;
  ClientMqttBase& operator=(const ClientMqttBase&) = delete;
  virtual ~ClientMqttBase();

  /// MQTT 5.0, section 1.5.5: no packet is longer.
  static constexpr size_t kMaxMqttPayload = 268'435'455;
  /// MQTT 5.0, section 1.5.4. The library would cut the length of a longer topic to 16 bits and so
  /// spoil the whole stream.
  static constexpr size_t kMaxMqttTopic = 65'535;

  /// Connects with these settings and keeps them for Reconnect(). kOk: started (asynchronous
  /// client) or done (synchronous client). A failure, now or later, reaches the connection-lost
  /// callback.
  virtual CommsStatus Connect(const MqttConnectSettings& settings) = 0;
  /// Connects again with the kept settings; does nothing while connected.
  virtual CommsStatus Reconnect() = 0;
  /// Ends the connection and forgets the settings. Returns within a few seconds whatever the broker
  /// does.
  virtual void Disconnect() = 0;
  /// Hands a message to the library. May wait a bounded time for room in the library's buffer.
  virtual CommsStatus Send(const std::string& topic, Qos qos, bool retain,
                           std::string_view payload) = 0;

  bool IsConnected() const { return connected_; }
  const std::string& Name() const { return name_; }

  /// Stores (or replaces) the listener of a topic filter, which is subscribed now if connected and
  /// after every (re)connect. kInvalidArgument for an empty filter or listener; kFailure when
  /// subscribing now failed.
  CommsStatus AddListener(const std::string& filter, Listener listener);
  /// Takes a listener away and waits until it no longer runs (not when called by a listener
  /// itself). The filter stays subscribed until the next connect; what still comes for it is logged
  /// and dropped.
  void RemoveListener(const std::string& filter);
  /// Called on a library thread when the connection is lost or an attempt failed; must not block or
  /// call this client.
  void SetConnectionLostCallback(ConnectionLostCallback callback);

 protected:
  explicit ClientMqttBase(std::string name);

  /// Subscribes one filter on the live connection.
  virtual CommsStatus Subscribe(const std::string& filter) = 0;

  /// For the library's arrival callbacks: copies what arrived and queues it, dropping the oldest
  /// when the queue is full. `topic_length` 0: the topic ends at its NUL. A topic or message that
  /// cannot be used is logged.
  void Accept(const char* topic, int topic_length, const void* bytes, int length,
              bool retained = false);
  void ReportConnectionLost();
  std::vector<std::string> ListenerFilters() const;
  /// Every derived destructor calls this first, so that no listener runs while its object comes
  /// apart.
  void StopProcessing();

  std::atomic<bool> connected_{false};

 private:
  void Enqueue(std::shared_ptr<MqttMessage> message);
  void ProcessMessages();
  void Deliver(const std::shared_ptr<MqttMessage>& message);
  Listener TakeListener(const std::string& topic);
  void FinishDelivery();

  const std::string name_;

  mutable std::mutex listeners_mutex_;
  std::map<std::string, Listener, std::less<>> listeners_;  // guarded by listeners_mutex_
  ConnectionLostCallback connection_lost_;                  // guarded by listeners_mutex_
  bool delivering_ = false;                                 // guarded by listeners_mutex_
  std::condition_variable delivered_;

  DropOldestQueue<std::shared_ptr<MqttMessage>> queue_;

  std::jthread processing_thread_;  // last: starts when the rest is complete
};

}  // namespace varnel::comms

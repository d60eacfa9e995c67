#pragma once

#include <MQTTAsync.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "comms/callback_registry.h"
#include "comms/client_mqtt_base.h"
#include "comms/paho_async_api.h"
#include "utils/clock.h"

namespace varnel::comms {

/// The client of both brokers, over the asynchronous Paho library with MQTT 5. Reconnecting is the
/// owner's decision: the connection-lost callback tells it, Reconnect() does it.
class ClientMqttAsync : public ClientMqttBase {
 public:
  /// How long Disconnect() waits for library callbacks, and how long Send() waits for room in the
  /// library's buffer.
  static constexpr std::chrono::milliseconds kCallbackLimit{2000};
  static constexpr std::chrono::milliseconds kRoomLimit{5000};

  /// `subscribe_qos` is the delivery guarantee asked for every listener's topic.
  explicit ClientMqttAsync(std::string name, Qos subscribe_qos = Qos::kAtMostOnce,
                           PahoAsyncApi& api = PahoAsyncApi::Library(),
                           utils::Clock& clock = utils::SystemClock::Instance());
  ~ClientMqttAsync() override;

  CommsStatus Connect(const MqttConnectSettings& settings) override;
  CommsStatus Reconnect() override;
  void Disconnect() override;
  CommsStatus Send(const std::string& topic, Qos qos, bool retain,
                   std::string_view payload) override;

 protected:
  CommsStatus Subscribe(const std::string& filter) override;

 private:
  friend struct AsyncCallbacks;
  using Registry = CallbackRegistry<ClientMqttAsync>;

  struct DestroyHandle {
    using pointer = MQTTAsync;
    PahoAsyncApi* api;
    void operator()(MQTTAsync handle) const { api->Destroy(handle); }
  };
  using Handle = std::unique_ptr<void, DestroyHandle>;

  // On our threads, with api_mutex_ held.
  CommsStatus CreateHandle();
  CommsStatus InstallCallbacks();
  int StartConnect();
  void CloseHandle();
  void RequestDisconnect();
  void DestroyHandleNow();
  CommsStatus EndAttempt(CommsStatus status);
  int TrySend(const std::string& topic, const MQTTAsync_message& message);

  // On our threads, without it.
  bool IsReachableByName(const std::string& host);
  CommsStatus RefuseHost(const MqttConnectSettings& settings);
  std::string KeptHost();
  CommsStatus ConnectLocked(const MqttConnectSettings& settings);
  CommsStatus ReconnectLocked();
  CommsStatus SendRefusal() const;
  bool WaitForRoom(utils::Clock::TimePoint deadline, uint64_t seen);
  CommsStatus SendFailed(const std::string& topic, int code, uint64_t connection);

  // On the library's threads, some with the library's lock held: never takes api_mutex_.
  void OnConnected();
  void OnConnectFailed(const MQTTAsync_failureData5* data);
  void OnConnectionLost(const char* cause);
  void OnServerDisconnect(MQTTReasonCodes reason);
  void OnMessage(const char* topic, int topic_length, const MQTTAsync_message* message);
  void OnSubscribeFailed(const MQTTAsync_failureData5* data);
  void OnSent(const MQTTAsync_successData5* data);
  void OnSendFailed(const MQTTAsync_failureData5* data);
  void OnRoom();
  void OnDisconnected();
  /// False when it is known already.
  bool NoteConnection();
  int SubscribeNow(const std::string& filter);

  const Qos subscribe_qos_;
  PahoAsyncApi& api_;
  utils::Clock& clock_;

  std::atomic<bool> connecting_{false};
  std::atomic<bool> disconnecting_{false};
  std::atomic<MQTTAsync> live_handle_{nullptr};  // for subscribing inside the library's callback
  std::string port_;  // written before a connect starts, read by its callback

  /// Held around every library call of our threads, never inside a library callback: the library
  /// calls back with its own lock held, and does not serialise concurrent sends itself.
  std::mutex api_mutex_;
  Handle handle_;                                // guarded by api_mutex_
  void* context_ = nullptr;                      // guarded by api_mutex_
  std::optional<MqttConnectSettings> settings_;  // guarded by api_mutex_

  std::mutex event_mutex_;
  std::condition_variable event_wake_;
  uint64_t sends_finished_ = 0;  // guarded by event_mutex_
  uint64_t connections_ = 0;     // so far; guarded by event_mutex_
  bool disconnected_ = false;    // guarded by event_mutex_
};

}  // namespace varnel::comms

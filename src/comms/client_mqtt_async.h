#pragma once

#include <MQTTAsync.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "comms/callback_registry.h"
#include "comms/client_mqtt_base.h"
#include "comms/link_state.h"
#include "comms/link_thread.h"
#include "comms/name_lookups.h"
#include "comms/name_pin.h"
#include "comms/paho_async_api.h"
#include "comms/send_window.h"
#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// The client of both brokers, over the asynchronous Paho library with MQTT 5. A thread of its own
/// does whatever can wait: it makes and ends connections, and reports what became of them.
/// Reconnecting is the owner's decision: the callbacks tell it, Reconnect() does it.
class ClientMqttAsync : public ClientMqttBase {
 public:
  /// How long an end waits for library callbacks, how long Send() waits for room, and after what
  /// time an attempt without outcome has failed.
  static constexpr std::chrono::milliseconds kCallbackLimit{2000};
  static constexpr std::chrono::milliseconds kRoomLimit{5000};
  static constexpr std::chrono::seconds kAttemptLimit{30};

  /// `subscribe_qos` is the delivery guarantee asked for every listener's topic.
  explicit ClientMqttAsync(std::string name, Qos subscribe_qos = Qos::kAtMostOnce,
                           PahoAsyncApi& api = PahoAsyncApi::Library(),
                           utils::Clock& clock = utils::SystemClock::Instance());
  /// Waits for a look-up that runs.
  ~ClientMqttAsync() override;

  CommsStatus Connect(const MqttConnectSettings& settings) override;
  CommsStatus Reconnect() override;
  void Disconnect() override;
  void Close() override;
  void AwaitClosed() override;
  CommsStatus Send(const std::string& topic, Qos qos, bool retain,
                   std::string_view payload) override;
  CommsStatus SendOn(uint32_t link, const std::string& topic, Qos qos,
                     std::string_view payload) override;
  LinkPhase Phase() const override { return state_.Phase(); }
  bool IsLive(uint32_t link) const override { return state_.IsLive(link); }

 protected:
  CommsStatus Subscribe(const std::string& filter) override;
  void Unsubscribe(const std::string& filter) override;

 private:
  friend struct AsyncCallbacks;
  using Registry = CallbackRegistry<ClientMqttAsync>;
  enum class Handle { kNew, kKept };

  struct DestroyHandle {
    using pointer = MQTTAsync;
    PahoAsyncApi* api;
    void operator()(MQTTAsync handle) const { api->Destroy(handle); }
  };

  /// What the library told of a failure.
  struct Cause {
    int return_code = 0;
    int reason_code = 0;
    std::string text{};
  };

  // On the link's thread.
  void RunAttempt(uint32_t attempt);
  void LookUp(uint32_t attempt, const MqttConnectSettings& settings);
  void HandleAddresses(uint32_t attempt, const std::string& host, const NameAddresses& names);
  void OpenConnection(uint32_t attempt);
  void HandleAccepted(uint32_t attempt, size_t receive_maximum);
  void HandleAcknowledged(uint32_t attempt);
  void HandleRefusedSubscription(uint32_t attempt, const Cause& cause);
  void HandleAttemptLimit();
  void FinishDrop(LinkEvent::Kind kind, uint32_t attempt, const Cause& cause);
  void CloseConnection();
  void FinishEnd(std::optional<uint32_t> ended);

  CommsStatus CreateHandle(const MqttConnectSettings& settings) REQUIRES(api_mutex_);
  CommsStatus InstallCallbacks() REQUIRES(api_mutex_);
  int StartConnect(uint32_t attempt, const MqttConnectSettings& settings) REQUIRES(api_mutex_);
  void CloseHandle() REQUIRES(api_mutex_);
  void RequestDisconnect() REQUIRES(api_mutex_);
  void DestroyHandleNow() REQUIRES(api_mutex_);

  // On any thread.
  /// False when the attempt and its link are over already.
  bool Drop(uint32_t attempt, const Cause& cause);
  CommsStatus Begin(const LinkState::Begun& begun, Handle handle);
  std::shared_future<void> PostEnd(std::optional<uint32_t> ended);
  CommsStatus SendMessage(std::optional<uint32_t> link, const std::string& topic,
                          std::string_view payload, MQTTAsync_message message);
  CommsStatus SendRefusal(uint32_t attempt) const;
  /// The library's code; nothing when the attempt is no longer the handle's.
  std::optional<int> TrySend(uint32_t attempt, uint32_t number, const std::string& topic,
                             const MQTTAsync_message& message);
  CommsStatus SendFailed(const std::string& topic, int code, uint32_t attempt);
  CommsStatus SubscribeOn(uint32_t attempt, const std::string& filter);

  // On the library's threads, some with the library's lock held: never takes api_mutex_.
  void OnAccepted(uint32_t attempt, const MQTTAsync_successData5* data);
  void OnConnectFailed(uint32_t attempt, const MQTTAsync_failureData5* data);
  void OnConnectionLost(const char* cause);
  void OnServerDisconnect(MQTTReasonCodes reason);
  void OnMessage(const char* topic, int topic_length, const MQTTAsync_message* message);
  void OnSubscribed(uint32_t attempt);
  void OnSubscribeFailed(uint32_t attempt, const MQTTAsync_failureData5* data);
  void OnSent(uint32_t number, const MQTTAsync_successData5* data);
  void OnSendFailed(uint32_t number, const MQTTAsync_failureData5* data);
  void OnDisconnected();
  void OnTlsError(const char* text, size_t length);
  std::string TakeTlsText();

  const Qos subscribe_qos_;
  PahoAsyncApi& api_;
  utils::Clock& clock_;
  LinkState state_;
  SendWindow window_;

  /// Held around every library call of our threads, never inside a library callback: the library
  /// calls back with its own lock held, and does not serialise concurrent sends itself.
  utils::Mutex api_mutex_;
  std::unique_ptr<void, DestroyHandle> handle_ GUARDED_BY(api_mutex_);
  void* context_ GUARDED_BY(api_mutex_) = nullptr;
  std::atomic<bool> has_handle_{false};
  std::atomic<uint32_t> handle_attempt_{0};  // the newest one on this handle

  utils::Mutex event_mutex_;
  utils::Condition event_wake_;
  bool disconnected_ GUARDED_BY(event_mutex_) = false;
  std::string tls_text_ GUARDED_BY(event_mutex_);  // of the newest attempt

  /// Held over a change of state and the posting of its task, so that the tasks of two callers come
  /// in the order of their changes. Nothing waits under it: library callbacks take it too.
  utils::Mutex order_mutex_;
  std::shared_future<void> closed_ GUARDED_BY(order_mutex_);

  // Of the link's thread.
  uint32_t running_ = 0;   // the attempt that the rest of this group belongs to
  bool accepted_ = false;  // by the broker
  uint32_t address_turn_ = 0;
  std::optional<NamePin> pin_;

  LinkThread thread_;
  NameLookups lookups_;  // last: what runs there posts to the thread
};

}  // namespace varnel::comms

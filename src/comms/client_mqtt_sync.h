#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "comms/callback_registry.h"
#include "comms/client_mqtt_base.h"
#include "utils/mutex.h"

namespace varnel::comms {

/// The same client over the synchronous Paho library with MQTT 5: Connect(), Reconnect() and Send()
/// return when the broker has answered or the attempt has failed; Connect() while connected is a
/// failure. For programs that do one thing after another.
class ClientMqttSync : public ClientMqttBase {
 public:
  explicit ClientMqttSync(std::string name, Qos subscribe_qos = Qos::kAtMostOnce);
  ~ClientMqttSync() override;

  CommsStatus Connect(const MqttConnectSettings& settings) override;
  CommsStatus Reconnect() override;
  void Disconnect() override;
  void Close() override;
  void AwaitClosed() override {}
  CommsStatus Send(const std::string& topic, Qos qos, bool retain,
                   std::string_view payload) override;
  CommsStatus SendOn(uint32_t link, const std::string& topic, Qos qos,
                     std::string_view payload) override;
  LinkPhase Phase() const override;
  bool IsLive(uint32_t link) const override;

 protected:
  CommsStatus Subscribe(const std::string& filter) override;
  void Unsubscribe(const std::string& filter) override;

 private:
  friend struct SyncCallbacks;
  using Registry = CallbackRegistry<ClientMqttSync>;

  struct DestroyHandle {
    void operator()(void* handle) const;
  };
  using Handle = std::unique_ptr<void, DestroyHandle>;

  CommsStatus CreateHandle() REQUIRES(api_mutex_);
  CommsStatus ConnectHandle() REQUIRES(api_mutex_);
  CommsStatus SubscribeAll() REQUIRES(api_mutex_);
  CommsStatus SubscribeLocked(const std::string& filter) REQUIRES(api_mutex_);
  CommsStatus Attempt() REQUIRES(api_mutex_);
  CommsStatus Publish(const std::string& topic, Qos qos, bool retain, std::string_view payload)
      REQUIRES(api_mutex_);
  void CloseHandle() REQUIRES(api_mutex_);

  CommsStatus EndAttempt(CommsStatus status);
  CommsStatus SendRefusal() const;

  // On the library's thread: never take api_mutex_.
  void OnConnectionLost(const char* cause);
  void OnMessage(const char* topic, int topic_length, const void* bytes, int length, bool retained);

  const Qos subscribe_qos_;
  std::atomic<bool> connected_{false};
  std::atomic<bool> connecting_{false};
  std::atomic<bool> closed_{false};
  std::atomic<uint32_t> attempt_{0};
  std::atomic<bool> disconnecting_{false};

  utils::Mutex api_mutex_;
  Handle handle_ GUARDED_BY(api_mutex_);
  void* context_ GUARDED_BY(api_mutex_) = nullptr;
  std::optional<MqttConnectSettings> settings_ GUARDED_BY(api_mutex_);
};

}  // namespace varnel::comms

#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "comms/client_mqtt_base.h"
#include "support/eventually.h"

namespace varnel::test {

struct SentMessage {
  std::string topic;
  std::string payload;
  comms::Qos qos;
  bool retain;
};

/// A client whose broker is the test: Arrive() delivers, Sent() tells what was published.
class FakeMqttClient : public comms::ClientMqttBase {
 public:
  explicit FakeMqttClient(std::string name = "fake") : ClientMqttBase(std::move(name)) {}
  ~FakeMqttClient() override { StopProcessing(); }

  comms::CommsStatus Connect(const comms::MqttConnectSettings& new_settings) override {
    if (closed) return comms::CommsStatus::kNotInitialized;
    settings = new_settings;
    ++link;
    connected = connects;
    Report({connects ? comms::LinkEvent::Kind::kConnected : comms::LinkEvent::Kind::kFailed, link});
    return connects ? comms::CommsStatus::kOk : comms::CommsStatus::kFailure;
  }
  comms::CommsStatus Reconnect() override {
    ++reconnects;
    return Connect(settings);
  }
  void Disconnect() override {
    if (connected.exchange(false)) Report({comms::LinkEvent::Kind::kEnded, link});
  }
  void Close() override {
    closed = true;
    Disconnect();
  }
  void AwaitClosed() override {
    if (on_await_closed) on_await_closed();
  }
  comms::CommsStatus SendOn(uint32_t number, const std::string& topic, comms::Qos qos,
                            std::string_view payload) override {
    return IsLive(number) ? Send(topic, qos, false, payload) : comms::CommsStatus::kNotConnected;
  }
  comms::LinkPhase Phase() const override {
    return connected ? comms::LinkPhase::kUp : comms::LinkPhase::kDown;
  }
  bool IsLive(uint32_t number) const override { return connected && link == number; }
  comms::CommsStatus Send(const std::string& topic, comms::Qos qos, bool retain,
                          std::string_view payload) override {
    if (!sends) return comms::CommsStatus::kNotConnected;
    sent.Put({topic, std::string(payload), qos, retain});
    if (on_send) on_send();
    return comms::CommsStatus::kOk;
  }

  void Arrive(const std::string& topic, const std::string& payload, bool retained = false) {
    Accept(link, topic.data(), static_cast<int>(topic.size()), payload.data(),
           static_cast<int>(payload.size()), retained);
  }
  void Lose() {
    connected = false;
    Report({comms::LinkEvent::Kind::kLost, link});
  }

  // Failure switches and what the client was asked for.
  bool connects = true;
  bool sends = true;
  bool subscribes = true;
  std::function<void()> on_send;
  std::function<void()> on_await_closed;
  int reconnects = 0;
  std::atomic<bool> connected{false};
  std::atomic<bool> closed{false};
  std::atomic<uint32_t> link{0};
  comms::MqttConnectSettings settings;
  Mailbox<SentMessage> sent;
  Mailbox<std::string> subscribed;
  Mailbox<std::string> unsubscribed;

 protected:
  comms::CommsStatus Subscribe(const std::string& filter) override {
    if (!connected) return comms::CommsStatus::kOk;
    subscribed.Put(filter);
    return subscribes ? comms::CommsStatus::kOk : comms::CommsStatus::kFailure;
  }
  void Unsubscribe(const std::string& filter) override { unsubscribed.Put(filter); }
};

}  // namespace varnel::test

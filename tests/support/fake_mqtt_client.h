#pragma once

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
    settings = new_settings;
    connected_ = connects;
    if (!connects) ReportConnectionLost();
    return connects ? comms::CommsStatus::kOk : comms::CommsStatus::kFailure;
  }
  comms::CommsStatus Reconnect() override {
    ++reconnects;
    return Connect(settings);
  }
  void Disconnect() override { connected_ = false; }
  comms::CommsStatus Send(const std::string& topic, comms::Qos qos, bool retain,
                          std::string_view payload) override {
    if (!sends) return comms::CommsStatus::kNotConnected;
    sent.Put({topic, std::string(payload), qos, retain});
    if (on_send) on_send();
    return comms::CommsStatus::kOk;
  }

  void Arrive(const std::string& topic, const std::string& payload, bool retained = false) {
    Accept(topic.data(), static_cast<int>(topic.size()), payload.data(),
           static_cast<int>(payload.size()), retained);
  }
  void Lose() {
    connected_ = false;
    ReportConnectionLost();
  }

  // Failure switches and what the client was asked for.
  bool connects = true;
  bool sends = true;
  bool subscribes = true;
  std::function<void()> on_send;
  int reconnects = 0;
  comms::MqttConnectSettings settings;
  Mailbox<SentMessage> sent;
  Mailbox<std::string> subscribed;

 protected:
  comms::CommsStatus Subscribe(const std::string& filter) override {
    subscribed.Put(filter);
    return subscribes ? comms::CommsStatus::kOk : comms::CommsStatus::kFailure;
  }
};

}  // namespace varnel::test

#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>

#include "comms/paho_async_api.h"
#include "support/eventually.h"

namespace varnel::comms {

/// The library with failure switches; the test plays its callbacks.
class FakePaho : public PahoAsyncApi {
 public:
  std::string Version() const override { return "1.3.12"; }
  int Create(MQTTAsync* handle, const std::string&, const std::string&,
             MQTTAsync_createOptions&) override {
    if (create_code == MQTTASYNC_SUCCESS) {
      *handle = &handle_storage_;
      ++live;
    }
    return create_code;
  }
  int SetCallbacks(MQTTAsync, void* new_context, MQTTAsync_connectionLost* lost_callback,
                   MQTTAsync_messageArrived* arrived_callback) override {
    context = new_context;
    lost = lost_callback;
    arrived = arrived_callback;
    return callbacks_code;
  }
  int SetDisconnected(MQTTAsync, void*, MQTTAsync_disconnected* callback) override {
    disconnected = callback;
    return MQTTASYNC_SUCCESS;
  }
  int Connect(MQTTAsync, const MQTTAsync_connectOptions& options) override {
    connect_options = options;
    ++connects;  // last: the test waits for it
    return connect_code;
  }
  NameAddresses LookUp(const std::string& host) override {
    if (on_look_up) on_look_up(host);
    if (!look_up_problem.empty()) return {{}, look_up_problem};
    return {{"192.0.2.1"}, ""};
  }
  void AwaitUnlocked(MQTTAsync) override {}
  int Disconnect(MQTTAsync, const MQTTAsync_disconnectOptions& options) override {
    if (disconnect_answers) options.onSuccess5(options.context, nullptr);
    return MQTTASYNC_SUCCESS;
  }
  int Subscribe(MQTTAsync, const std::string& filter, int qos,
                MQTTAsync_responseOptions& options) override {
    subscribed.Put(filter + "@" + std::to_string(qos));
    if (subscribe_code != MQTTASYNC_SUCCESS) return subscribe_code;
    if (subscribe_refused) {
      MQTTAsync_failureData5 data = MQTTAsync_failureData5_initializer;
      data.code = -1;
      data.reasonCode = MQTTREASONCODE_NOT_AUTHORIZED;
      options.onFailure5(options.context, &data);
    } else if (acknowledges) {
      options.onSuccess5(options.context, nullptr);
    }
    return subscribe_code;
  }
  int Unsubscribe(MQTTAsync, const std::string&, MQTTAsync_responseOptions&) override {
    return MQTTASYNC_SUCCESS;
  }
  int Send(MQTTAsync, const std::string&, const MQTTAsync_message& message,
           MQTTAsync_responseOptions& options) override {
    if (on_send) on_send();
    if (full > 0) {
      --full;
      return MQTTASYNC_MAX_BUFFERED_MESSAGES;
    }
    if (send_code == MQTTASYNC_SUCCESS) {
      deliveries.Put(options);
      sent.Put(std::string(static_cast<const char*>(message.payload),
                           static_cast<size_t>(message.payloadlen)));
    }
    return send_code;
  }
  void Destroy(MQTTAsync) override { --live; }

  void Succeed(int receive_maximum = 0) {
    MQTTAsync_successData5 data = MQTTAsync_successData5_initializer;
    MQTTProperty maximum{};
    maximum.identifier = MQTTPROPERTY_CODE_RECEIVE_MAXIMUM;
    maximum.value.integer2 = static_cast<unsigned short>(receive_maximum);
    if (receive_maximum > 0) MQTTProperties_add(&data.properties, &maximum);
    connect_options.onSuccess5(connect_options.context, &data);
    MQTTProperties_free(&data.properties);
  }
  void Fail(MQTTReasonCodes reason = MQTTREASONCODE_SUCCESS) {
    MQTTAsync_failureData5 data = MQTTAsync_failureData5_initializer;
    data.code = -1;
    data.reasonCode = reason;
    connect_options.onFailure5(connect_options.context, &data);
  }
  /// The broker has taken the oldest message that it has not yet.
  void Deliver() {
    const auto options = deliveries.Items().at(delivered_++);
    options.onSuccess5(options.context, nullptr);
  }
  void Arrive(const std::string& topic, const std::string& payload) {
    auto* message = static_cast<MQTTAsync_message*>(MQTTAsync_malloc(sizeof(MQTTAsync_message)));
    *message = MQTTAsync_message_initializer;
    message->payload = Copy(payload);
    message->payloadlen = static_cast<int>(payload.size());
    arrived(context, Copy(topic), 0, message);
  }
  /// As the library hands texts out: the callback frees them.
  static char* Copy(const std::string& text) {
    auto* copy = static_cast<char*>(MQTTAsync_malloc(text.size() + 1));
    std::copy_n(text.c_str(), text.size() + 1, copy);
    return copy;
  }

  std::string look_up_problem;
  std::function<void(const std::string&)> on_look_up;
  bool acknowledges = true;
  int create_code = MQTTASYNC_SUCCESS;
  int callbacks_code = MQTTASYNC_SUCCESS;
  int connect_code = MQTTASYNC_SUCCESS;
  int subscribe_code = MQTTASYNC_SUCCESS;
  int send_code = MQTTASYNC_SUCCESS;
  std::function<void()> on_send;
  bool subscribe_refused = false;
  bool disconnect_answers = true;
  int full = 0;

  std::atomic<int> live = 0;
  std::atomic<int> connects = 0;
  void* context = nullptr;
  MQTTAsync_connectOptions connect_options{};
  MQTTAsync_connectionLost* lost = nullptr;
  MQTTAsync_messageArrived* arrived = nullptr;
  MQTTAsync_disconnected* disconnected = nullptr;
  test::Mailbox<std::string> subscribed;
  test::Mailbox<std::string> sent;
  test::Mailbox<MQTTAsync_responseOptions> deliveries;

 private:
  int handle_storage_ = 0;
  size_t delivered_ = 0;
};

}  // namespace varnel::comms

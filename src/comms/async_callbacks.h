#pragma once

#include <MQTTAsync.h>

#include <cstddef>

namespace varnel::comms {

/// What the library calls. Each finds its client, which may be gone, and does nothing else. The
/// context's number is the attempt, or the message, that the call is about.
struct AsyncCallbacks {
  static void Connected(void* context, MQTTAsync_successData5* data);
  static void ConnectFailed(void* context, MQTTAsync_failureData5* data);
  static void ConnectionLost(void* context, char* cause);
  static void ServerDisconnect(void* context, MQTTProperties*, MQTTReasonCodes reason);
  static int MessageArrived(void* context, char* topic, int topic_length,
                            MQTTAsync_message* message);
  static void Subscribed(void* context, MQTTAsync_successData5*);
  static void SubscribeFailed(void* context, MQTTAsync_failureData5* data);
  static void Sent(void* context, MQTTAsync_successData5* data);
  static void SendFailed(void* context, MQTTAsync_failureData5* data);
  static void Disconnected(void* context, MQTTAsync_successData5*);
  static void DisconnectFailed(void* context, MQTTAsync_failureData5*);
  static int TlsError(const char* text, size_t length, void* context);
};

}  // namespace varnel::comms

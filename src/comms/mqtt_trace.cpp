#include "comms/mqtt_trace.h"

#include <mutex>

#include "utils/log.h"

namespace varnel::comms {
namespace {

constexpr const char* kTag = "MQTT";

}  // namespace

void LogMqttTrace(MQTTASYNC_TRACE_LEVELS level, const char* message) {
  const char* text = message ? message : "";
  switch (level) {
    case MQTTASYNC_TRACE_FATAL:
      VLOG_CRITICAL(kTag, "PAHO FATAL: {}", text);
      return;
    case MQTTASYNC_TRACE_ERROR:
      VLOG_ERROR(kTag, "PAHO ERROR: {}", text);
      return;
    case MQTTASYNC_TRACE_SEVERE:
      VLOG_INFO(kTag, "PAHO SERVER: {}", text);
      return;
    case MQTTASYNC_TRACE_PROTOCOL:
      VLOG_INFO(kTag, "PAHO PROTO: {}", text);
      return;
    case MQTTASYNC_TRACE_MEDIUM:
      VLOG_INFO(kTag, "PAHO MED: {}", text);
      return;
    case MQTTASYNC_TRACE_MAXIMUM:
      VLOG_INFO(kTag, "PAHO MAX: {}", text);
      return;
    case MQTTASYNC_TRACE_MINIMUM:
      VLOG_INFO(kTag, "PAHO MINI: {}", text);
      return;
  }
}

void InstallMqttTrace() {
  static std::once_flag once;
  std::call_once(once, [] {
    MQTTAsync_setTraceLevel(MQTTASYNC_TRACE_ERROR);
    MQTTAsync_setTraceCallback(
        [](MQTTASYNC_TRACE_LEVELS level, char* message) { LogMqttTrace(level, message); });
  });
}

}  // namespace varnel::comms

#pragma once

#include <MQTTAsync.h>

namespace varnel::comms {

/// Sends the asynchronous library's trace to the log. Only errors and worse are traced: below that
/// the library reports every packet, which costs most of the throughput and floods the log.
void InstallMqttTrace();

/// Writes one trace line at the log level that its trace level stands for.
void LogMqttTrace(MQTTASYNC_TRACE_LEVELS level, const char* message);

}  // namespace varnel::comms

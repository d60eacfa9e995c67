#pragma once

#include <cstddef>
#include <string>

#include "comms/client_mqtt_base.h"

namespace varnel::comms {

/// The retain handling of every subscription: replacing a listener subscribes again, which must not
/// deliver a retained message a second time.
constexpr unsigned char kRetainedOnlyToNewSubscriptions = 1;

/// Takes the proxy, through which the library would send even loopback traffic, out of the
/// process's environment. To be called while the process has one thread: others may read the
/// environment.
void IgnoreProxies();

/// For the library's TLS options: why a handshake failed.
int LogTlsError(const char* text, size_t length, void* context);

/// The server URI of a connection in the schemes that the running library knows: "mqtt://" and
/// "mqtts://" since 1.3.11, "tcp://" and "ssl://" before.
std::string ServerUri(const MqttConnectSettings& settings, const std::string& library_version);

/// Switches Nagle's algorithm off on this process's TCP sockets that are connected to `port`. The
/// library makes two small writes per message and offers no way to its socket, so each answer would
/// wait for a delayed acknowledgement.
void SetNoDelayTowards(const std::string& port);

}  // namespace varnel::comms

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

/// How the library wants a text that may be absent.
inline const char* OrNull(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

/// Fills in the TLS options of either library, which have the same members; they view the settings.
template <class Options>
void SetTls(const MqttConnectSettings& settings, Options& options) {
  options.enableServerCertAuth = 1;
  options.verify = 1;  // the name in the certificate must be the host's
  options.trustStore = OrNull(settings.root_ca);
  options.disableDefaultTrustStore = 1;  // nobody but the given root vouches for the broker
  options.keyStore = OrNull(settings.client_certificate);
  options.privateKey = OrNull(settings.client_key);
}

/// The server URI of a connection in the schemes that the running library knows: "mqtt://" and
/// "mqtts://" since 1.3.11, "tcp://" and "ssl://" before.
std::string ServerUri(const MqttConnectSettings& settings, const std::string& library_version);

/// Switches Nagle's algorithm off on this process's TCP sockets that are connected to `port`. The
/// library makes two small writes per message and offers no way to its socket, so each answer would
/// wait for a delayed acknowledgement.
void SetNoDelayTowards(const std::string& port);

}  // namespace varnel::comms

#pragma once

#include <cstdint>
#include <string>

namespace varnel::comms {

/// Where a link to a broker stands. It is up when the broker has accepted the connection and
/// acknowledged every subscription.
enum class LinkPhase { kDown, kConnecting, kUp };

/// What became of one attempt to connect, or of the link that it made. Each attempt is reported
/// once, as connected, failed, or ended while it ran; each link that was up once more, as lost or
/// ended. Events come in the order of their attempts.
struct LinkEvent {
  enum class Kind { kConnected, kFailed, kLost, kEnded };
  Kind kind = Kind::kFailed;
  uint32_t attempt = 0;  ///< counts the attempts of one client from 1
  int return_code = 0;   ///< of the MQTT library; 0 when it gave none
  int reason_code = 0;   ///< MQTT 5.0, section 2.4: of CONNACK, SUBACK or DISCONNECT; 0 without one
  std::string text{};    ///< for people: what the look-up, TLS or the library said
};

}  // namespace varnel::comms

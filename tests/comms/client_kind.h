#pragma once

#include <memory>
#include <string>

#include "comms/client_mqtt_base.h"

namespace varnel::test {

/// The client that a test program is about. Tests that hold for both clients are built into two
/// programs.
std::shared_ptr<comms::ClientMqttBase> NewClient(const std::string& name,
                                                 comms::Qos qos = comms::Qos::kAtMostOnce);

}  // namespace varnel::test

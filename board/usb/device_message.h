#pragma once

#include <string>
#include <utility>
#include <vector>

namespace varnel::board {

/// A device message as the device manager sends it to the programs of a machine.
struct DeviceMessage {
  std::string action;
  std::string path;  ///< below /sys
  std::string subsystem;
  std::string type;
  std::string node;
};

/// Sends it to everyone on this network who listens through libudev; root of the network only.
/// Throws std::system_error.
void Send(const DeviceMessage& message);

}  // namespace varnel::board

#pragma once

#include <string>

#include "hal_interface/hal_records.h"
#include "hal_interface/hal_status.h"
#include "platform/identity_block.h"
#include "utils/clock.h"

namespace varnel::platform {

/// Where the board tells who it is.
struct SystemInfoBoard {
  IdentityStorage identity;
  std::string version = "/etc/VERSION";
  std::string full_version = "/etc/FULLVERSION";
  /// An input whose voltage stands for the hardware version.
  std::string hardware_adc = "/sys/bus/iio/devices/iio:device0/in_voltage2_raw";
  std::string mac_address = "/sys/class/net/%s/address";  ///< "%s" stands for the interface
  std::string interface = "wlan0";
  std::string processor = "/proc/cpuinfo";
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// Fills the identity record. A field that cannot be read gets its fallback text, with a log line;
/// `unknown_version` is that of a hardware version between the known ones. -2 for a null record,
/// else 0.
hal_adapter::HalStatus get_device_info(const SystemInfoBoard& board, const char* unknown_version,
                                       hal_adapter::DeviceInfo* info);

}  // namespace varnel::platform

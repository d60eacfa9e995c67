#pragma once

#include <string>

#include "hal_interface/hal_status.h"
#include "platform/v4l2_calls.h"

namespace varnel::platform {

/// The programs and devices of the camera area.
struct MultimediaBoard {
  std::string i2cdetect = "/usr/sbin/i2cdetect";
  std::string mipi_device = "/dev/video11";
  std::string usb_device = "/dev/video18";
  /// There while a driver holds the sensor's address, for which i2cdetect says "UU".
  std::string sensor_driver = "/sys/bus/i2c/devices/4-0037/driver";
  const V4l2Calls* calls = &kLibV4l2Calls;
};

/// platform_multimedia_init() for a given board: selects the camera and registers the multimedia
/// table.
hal_adapter::HalStatus multimedia_init(const MultimediaBoard& board);

}  // namespace varnel::platform

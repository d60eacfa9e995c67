#pragma once

#include "hal_interface/hal_records.h"
#include "hal_interface/hal_status.h"

namespace varnel::platform {

/// Fills the identity record; a field that cannot be read gets its fallback text. -2 for null, else
/// 0.
hal_adapter::HalStatus get_device_info(hal_adapter::DeviceInfo* info);

}  // namespace varnel::platform

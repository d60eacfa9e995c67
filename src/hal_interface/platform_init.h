#pragma once

#include "hal_interface/hal_status.h"

/// Initialisers of the board's areas; the platform layer defines them. Each registers the table of
/// its area with the HAL adapter. Called once, from the thread that starts the services.
namespace varnel::platform {

hal_adapter::HalStatus platform_ai_init();
hal_adapter::HalStatus platform_multimedia_init();
hal_adapter::HalStatus platform_storage_init();
hal_adapter::HalStatus platform_system_init();

/// Closes the camera if it is open and gives its instance up. No photo may run at the same time or
/// later.
void platform_multimedia_shutdown();

/// Ends the watch for USB drives.
void platform_system_shutdown();

}  // namespace varnel::platform

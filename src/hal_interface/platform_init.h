#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hal_interface/hal_status.h"

/// Initialisers of the board's areas; the platform layer defines them. Each registers the table of
/// its area with the HAL adapter. Called once, from the thread that starts the services.
namespace varnel::platform {

/// What the deployment chooses for the system area.
struct SystemSettings {
  /// The identity block: a file or block device, and its first byte in it.
  std::string identity_device;
  uint64_t identity_offset = 0;
  /// The key of an encrypted block; empty: there is none.
  std::string identity_key_file;
  /// Whether there is room for an archive; says so in the log when there is none.
  std::function<bool(const std::filesystem::path& file)> has_space = {};
  /// What is archived instead of a source; see DataBoard.
  std::function<std::shared_ptr<const std::filesystem::path>(const std::string& source,
                                                             const std::string& name)>
      copy_source = {};
};

hal_adapter::HalStatus platform_ai_init();
hal_adapter::HalStatus platform_multimedia_init();
hal_adapter::HalStatus platform_storage_init();
hal_adapter::HalStatus platform_system_init(const SystemSettings& settings);

/// What the layer archives for diagnosis, and its own temporary files; a "*" stands for any ending.
/// Nobody else is to write there. Callable at any time.
std::vector<std::filesystem::path> platform_places();

/// Closes the camera if it is open and gives its instance up. No photo may run at the same time or
/// later.
void platform_multimedia_shutdown();

/// Ends the watch for USB drives.
void platform_system_shutdown();

}  // namespace varnel::platform

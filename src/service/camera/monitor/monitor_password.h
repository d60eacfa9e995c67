#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "utils/secret.h"

namespace varnel::service {

/// What pictures are encrypted with.
struct MonitorPassword {
  utils::SecretString text;  ///< 32 hexadecimal digits
  std::vector<uint8_t> salt;
};

/// A new one; nothing when the system has no random bytes.
[[nodiscard]] std::optional<MonitorPassword> MakeMonitorPassword();

/// The one of this device, which is made at the first time and kept in a file of mode 0600. Nothing
/// when it can be neither read nor made; the log tells why.
[[nodiscard]] std::optional<MonitorPassword> DeviceMonitorPassword(
    const std::filesystem::path& file);

}  // namespace varnel::service

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace varnel::platform {

/// The directory on which a device is mounted, readable, taken from the text of /proc/mounts: the
/// first line that holds `node` anywhere decides, so a whole disk is found by its partitions.
[[nodiscard]] std::optional<std::string> mount_directory_of(std::string_view node,
                                                            std::string_view mounts);

}  // namespace varnel::platform

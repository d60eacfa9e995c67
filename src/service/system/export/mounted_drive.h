#pragma once

#include <filesystem>
#include <string>

#include "utils/held_directory.h"
#include "utils/result.h"

namespace varnel::service {

/// Holds a drive by its mount directory, which has no links; or why that is none: nothing is
/// mounted there, for example, and the directory is one of the printer's own disk.
[[nodiscard]] utils::Result<utils::HeldDirectory, std::string> OpenMountedDrive(
    const std::filesystem::path& directory);

}  // namespace varnel::service

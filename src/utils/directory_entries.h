#pragma once

#include <filesystem>
#include <system_error>
#include <vector>

namespace varnel::utils {

/// What lies in a directory, in no order; nothing is thrown. With an error, what was found until
/// then: a missing directory is one too.
[[nodiscard]] std::vector<std::filesystem::directory_entry> DirectoryEntries(
    const std::filesystem::path& directory, std::error_code& error);

}  // namespace varnel::utils

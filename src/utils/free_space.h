#pragma once

#include <cstdint>
#include <filesystem>

namespace varnel::utils {

/// Whether the file system of the directory has `min_bytes` left for us; 0 is always enough. Where
/// it cannot be told the answer is yes, and the write itself will show the error.
[[nodiscard]] bool EnoughFreeSpace(const std::filesystem::path& directory, uint64_t min_bytes);

}  // namespace varnel::utils

#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>

namespace varnel::utils {

/// Whether the file system of the directory has `min_bytes` left for us; 0 is always enough. Where
/// it cannot be told the answer is yes, and the write itself will show the error.
[[nodiscard]] bool EnoughFreeSpace(const std::filesystem::path& directory, uint64_t min_bytes);

/// Asked before a file is written: whether there is room for it, which says so in the log when
/// there is none. Empty: there is always room.
using SpaceCheck = std::function<bool(const std::filesystem::path& file)>;

[[nodiscard]] inline bool HasRoom(const SpaceCheck& check, const std::filesystem::path& file) {
  return !check || check(file);
}

}  // namespace varnel::utils

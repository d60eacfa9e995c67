#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace varnel::utils {

/// What the name ends with from its last dot on, also when it begins with that dot; many programs
/// choose a format by it. Empty without a dot.
[[nodiscard]] std::string FileEnding(const std::filesystem::path& file);

/// Whether a new file waits for the disk.
enum class Durability {
  kPowerFailure,  ///< after a power failure either the old or the new content is there
  kCrash,         ///< readers and a killed process see one or the other; for files that can be lost
};

/// Replaces the file as a whole. A link is replaced, not followed. An error leaves the old file,
/// except one of the directory's own sync, which comes after the rename.
[[nodiscard]] std::error_code WriteFileAtomically(
    const std::filesystem::path& target, std::string_view bytes, mode_t mode = 0644,
    Durability durability = Durability::kPowerFailure);

/// Makes `link` point at `target`, replacing what link was there in one step that survives a power
/// failure.
[[nodiscard]] std::error_code ReplaceSymlink(const std::filesystem::path& target,
                                             const std::filesystem::path& link);

/// Syncs a directory: what was made, renamed or removed in it survives a power failure.
[[nodiscard]] std::error_code SyncDirectory(const std::filesystem::path& directory);

/// Makes a directory and those it lies in, as far as they are missing, so that others may enter
/// them; they survive a power failure.
[[nodiscard]] std::error_code MakeDirectories(const std::filesystem::path& directory);

/// The content of a regular file (also of /proc and /sys). Nothing when it is missing, of another
/// kind, unreadable or longer than `max_bytes`.
[[nodiscard]] std::optional<std::string> ReadSmallFile(const std::filesystem::path& path,
                                                       size_t max_bytes);

}  // namespace varnel::utils

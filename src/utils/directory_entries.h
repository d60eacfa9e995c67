#pragma once

#include <filesystem>
#include <functional>
#include <system_error>
#include <vector>

namespace varnel::utils {

/// Calls `visit` for what lies in a directory, in no order, and keeps nothing of it: somebody
/// else's directory can be of any size. The entry that is visited may be removed.
void ForEachEntry(const std::filesystem::path& directory, std::error_code& error,
                  const std::function<void(const std::filesystem::directory_entry& entry)>& visit);

/// What lies in a directory, in no order; nothing is thrown. With an error, what was found until
/// then: a missing directory is one too.
[[nodiscard]] std::vector<std::filesystem::directory_entry> DirectoryEntries(
    const std::filesystem::path& directory, std::error_code& error);

}  // namespace varnel::utils

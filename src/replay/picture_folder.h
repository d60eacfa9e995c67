#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace varnel::replay {

/// The names of the JPEG files in a folder, sorted; an error leaves the list empty.
[[nodiscard]] std::vector<std::string> ListPictures(const std::filesystem::path& folder,
                                                    std::error_code& error);

}  // namespace varnel::replay

#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace varnel::replay {

struct SkippedFile {
  std::string name;
  std::string reason;
};

/// What lies in a folder, sorted by name.
struct PictureList {
  std::vector<std::string> pictures;
  uint64_t bytes = 0;  ///< of all pictures
  std::string sha256;  ///< of a line "<bytes> <name>\n" for each picture
  std::vector<SkippedFile> skipped;
};

/// Lists the JPEG files of a folder; an error leaves nothing.
/// @param prints the pictures are in the folders below it, a print in each, and named
/// "folder/picture"
[[nodiscard]] PictureList ListPictures(const std::filesystem::path& folder, bool prints,
                                       std::error_code& error);

}  // namespace varnel::replay

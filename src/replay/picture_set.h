#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "replay/matching.h"

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

/// One picture of a replay.
struct Turn {
  std::string picture;
  std::string status;  ///< "first", "last" or empty: its place in its print
};

/// A part of a replay that a job of its own judges.
struct Shard {
  size_t index = 0;  ///< from 1
  size_t count = 0;  ///< 0: the replay is not cut
};

/// Pictures with the same folder in their names are a print.
/// @param pictures sorted by name
/// @param independent makes each picture a print of its own
[[nodiscard]] std::vector<Turn> TurnsOf(const std::vector<std::string>& pictures, bool independent);

/// Consecutive prints, as whole as "first" pictures make them: the analysis forgets everything at
/// one, so each print is judged alike in any shard. A print belongs to the shard in which its first
/// picture falls when all pictures are cut into equal parts.
[[nodiscard]] std::vector<Turn> TurnsOf(const Shard& shard, const std::vector<Turn>& turns);

struct LabelledObject {
  std::string label;
  Box box;
};

/// What people saw in the pictures, by picture name. A picture that is not in it shows nothing.
using Labels = std::map<std::string, std::vector<LabelledObject>>;

/// Reads one JSON object a line, {"picture": name, "label": text, "box": [left, top, right,
/// bottom]}; other members and empty lines are skipped.
/// @param error of the first bad line, with its number
[[nodiscard]] std::optional<Labels> ReadLabels(std::istream& lines, std::string& error);

}  // namespace varnel::replay

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace varnel::replay {

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

}  // namespace varnel::replay

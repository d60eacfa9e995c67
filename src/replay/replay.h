#pragma once

#include <optional>
#include <string>
#include <vector>

#include "replay/command_line.h"
#include "replay/picture_set.h"
#include "utils/file_digest.h"

namespace varnel::replay {

/// What a replay works on, read before anything is written.
struct Input {
  PictureList list;         ///< the whole folder
  std::vector<Turn> turns;  ///< what is judged of it
  utils::FileDigest labels_digest;
  std::optional<Labels> labels;  ///< without those of other shards; nothing when not asked for
};

/// @param error for the user. Throws std::system_error when the labels cannot be read.
[[nodiscard]] std::optional<Input> ReadInput(const Options& options, std::string& error);

/// Judges all pictures and writes everything to options.out. The outcome goes to standard output,
/// progress and errors to standard error.
/// @return whether every picture was judged and everything written
[[nodiscard]] bool Replay(const Options& options, Input input);

}  // namespace varnel::replay

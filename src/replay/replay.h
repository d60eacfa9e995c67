#pragma once

#include <optional>
#include <string>
#include <vector>

#include "replay/command_line.h"
#include "replay/labels.h"

namespace varnel::replay {

/// What a replay works on, read before anything is written.
struct Input {
  std::vector<std::string> pictures;
  std::optional<Labels> labels;  ///< nothing when none were asked for
};

/// @param error for the user
[[nodiscard]] std::optional<Input> ReadInput(const Options& options, std::string& error);

/// Judges all pictures and writes everything to options.out. The outcome goes to standard output,
/// progress and errors to standard error.
/// @return whether every picture was judged and everything written
[[nodiscard]] bool Replay(const Options& options, Input input);

}  // namespace varnel::replay

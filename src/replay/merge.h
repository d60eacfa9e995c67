#pragma once

#include "replay/command_line.h"

namespace varnel::replay {

/// Makes one report of those of all shards of a replay, and gathers the annotated pictures. The
/// outcome goes to standard output, errors to standard error. Throws std::runtime_error when the
/// shards do not belong together or are not all there; nothing is written then.
/// @return whether every picture was judged and everything written
[[nodiscard]] bool Merge(const Options& options);

}  // namespace varnel::replay

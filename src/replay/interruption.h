#pragma once

namespace varnel::replay {

/// From now on the first SIGINT or SIGTERM asks for an end after the current picture; the second
/// one ends the program.
void CatchInterruption();
/// Whether that was asked for.
[[nodiscard]] bool Interrupted();

}  // namespace varnel::replay

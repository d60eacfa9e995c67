#pragma once

#include "utils/clock.h"
#include "utils/held_directory.h"

namespace varnel::service {

/// Whether a drive asks for the diagnosis to be written to it, by the file
/// ".maintenance/export_log.json". The drive is anybody's: nothing but a regular file on it is
/// opened, at most 1 MiB of it is read in about a second, and an instruction that is none is one
/// line in the log.
[[nodiscard]] bool AsksForExport(const utils::HeldDirectory& drive, const utils::Clock& clock);

}  // namespace varnel::service

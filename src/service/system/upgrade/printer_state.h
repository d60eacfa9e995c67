#pragma once

#include <chrono>
#include <functional>

#include "comms/comms_manager.h"
#include "utils/clock.h"

namespace varnel::service {

/// Why the printer must not be upgraded now, in words for clients; null: it may be. Moonraker is
/// asked over the board's broker, and the link to that is waited for: two seconds for both. Without
/// an answer it may be, since a Moonraker that is broken can be repaired by it; where the question
/// could not be asked or the link was lost, nobody knows.
/// @param pause false: it is to end
[[nodiscard]] const char* PrinterRefusal(
    comms::CommsManager& comms, const utils::Clock& clock,
    const std::function<bool(std::chrono::milliseconds time)>& pause);

}  // namespace varnel::service

#pragma once

#include "comms/comms_manager.h"

namespace varnel::service {

/// Whether a print is under way or paused, as Moonraker says, which is asked over the board's
/// broker. Without an answer within two seconds: no.
[[nodiscard]] bool IsPrinting(comms::CommsManager& comms);

}  // namespace varnel::service

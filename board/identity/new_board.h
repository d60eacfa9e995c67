#pragma once

#include "virtual_board/identity/device_key.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// Gives the board what it tells about itself: identity block, version files, hardware version,
/// address and processor. Only what is missing is made, so a board keeps who it is. Throws
/// std::runtime_error.
void WriteIdentityFiles(const Layout& layout, KeyKind key);

}  // namespace varnel::board

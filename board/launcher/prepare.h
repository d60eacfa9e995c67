#pragma once

#include "virtual_board/launcher/boot_options.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// Makes the board's directory ready for a boot and keeps what an earlier boot left in it. `tools`
/// is the directory of this program, where the camera, the chart and the stand-ins lie. Throws
/// std::filesystem::filesystem_error or std::runtime_error.
void PrepareBoard(const BootOptions& options, const Layout& layout,
                  const std::filesystem::path& tools);

/// Environment of everything that runs inside.
std::map<std::string, std::string> BoardEnvironment(const BootOptions& options);

}  // namespace varnel::board

#pragma once

#include <string>
#include <vector>

#include "virtual_board/launcher/boot_options.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// The bubblewrap command that runs a board's first process in a world of its own: processes,
/// network (loopback only), file tree and users. The caller is root inside, whoever it is outside.
std::vector<std::string> SandboxCommand(const BootOptions& options, const Layout& layout,
                                        const std::filesystem::path& tools);

}  // namespace varnel::board

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// The command that runs `command` inside the board whose first process is `pid`, as root of the
/// board.
std::vector<std::string> EnterCommand(const Layout& layout, pid_t pid,
                                      const std::vector<std::string>& command);

/// The command that runs a program of the host on the board's network only: it keeps the host's
/// files and processes, and 127.0.0.1 is the board's.
std::vector<std::string> EnterNetworkCommand(pid_t pid, const std::vector<std::string>& command);

}  // namespace varnel::board

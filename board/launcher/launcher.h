#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "virtual_board/launcher/boot_options.h"
#include "virtual_board/launcher/control.h"

namespace varnel::board {

/// Boots a board. In the foreground it does not return; otherwise it returns when the board takes
/// requests and its broker, if started, takes connections. Throws std::runtime_error with a text
/// for the user.
void Boot(const BootOptions& options);

/// Ends a running board and waits until nothing of it is left. False when it did not end in time.
bool Stop(const Layout& layout);

/// False when there is no board or its broker takes no connections within the time.
bool AwaitBroker(const Layout& layout, std::chrono::milliseconds limit);
/// False when no board takes requests within the time.
bool AwaitBoard(const Layout& layout, std::chrono::milliseconds limit);

/// The directory of this program.
std::filesystem::path ToolsDirectory();

}  // namespace varnel::board

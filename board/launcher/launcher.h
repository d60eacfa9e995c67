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

/// Waits until a board that `launcher`, a child of the caller, is booting takes requests, and its
/// broker, if it is to start, connections. False when it does not come up; at once when the
/// launcher ends.
bool AwaitBoot(const Layout& layout, pid_t launcher, bool with_broker);
/// False when there is no board or its broker takes no connections within the time.
bool AwaitBroker(const Layout& layout, std::chrono::milliseconds limit);

/// The directory of this program.
std::filesystem::path ToolsDirectory();

}  // namespace varnel::board

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

/// Becomes the cloud of a directory, which ends with the caller's parent. Throws
/// std::runtime_error with a text for the user.
[[noreturn]] void BecomeCloud(const std::filesystem::path& directory);

/// Ends a running board and waits until nothing of it is left. False when it did not end in time.
bool Stop(const Layout& layout);

/// Waits until a board that `launcher`, a child of the caller, is booting takes requests, its
/// broker, if it is to start, connections, and its cloud, if it is to have one, has it. False when
/// it does not come up; at once when the launcher ends.
bool AwaitBoot(const Layout& layout, pid_t launcher, const BootOptions& options);
/// False when there is no board or its broker takes no connections within the time.
bool AwaitBroker(const Layout& layout, std::chrono::milliseconds limit);

/// The directory of this program.
std::filesystem::path ToolsDirectory();

}  // namespace varnel::board

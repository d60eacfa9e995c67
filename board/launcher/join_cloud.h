#pragma once

#include <filesystem>
#include <string>

#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// Makes a board ready for the cloud that runs in a directory: the cloud gets the device's public
/// key; the board the cloud's names, certificate and key, and its settings in deployment.json. The
/// board's name in the cloud: its serial number, or the name of its directory when its identity is
/// encrypted (whoever made that registers it). Throws std::runtime_error with a text for the user.
std::string JoinCloud(const std::filesystem::path& cloud, const Layout& layout);

}  // namespace varnel::board

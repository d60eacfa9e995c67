#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "virtual_board/identity/device_key.h"

namespace varnel::board {

enum class CameraKind { kMipi, kUsb };

/// What a board is booted with.
struct BootOptions {
  std::filesystem::path directory;
  CameraKind camera = CameraKind::kMipi;
  std::filesystem::path daemon;  ///< the varnel program on the host; empty: none
  bool start_daemon = true;
  bool start_broker = true;
  bool npu = true;
  bool clock = false;                 ///< the daemon's clock can be set, see Layout::ClockOffset()
  KeyKind device_key = KeyKind::kEc;  ///< of an identity that is made at this boot
  std::filesystem::path cloud;        ///< directory of a running cloud; empty: none is in reach
  bool foreground = false;  ///< the caller becomes the board, which ends with the caller's parent
  std::vector<std::pair<std::string, std::string>> binds;  ///< host path, path inside
  std::map<std::string, std::string> environment;          ///< added for all programs inside
};

/// Takes the arguments after "boot". Throws std::invalid_argument with a text for the user.
BootOptions ParseBootOptions(const std::vector<std::string>& arguments);

}  // namespace varnel::board

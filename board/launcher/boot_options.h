#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

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
  bool foreground = false;  ///< the caller becomes the board, which ends with the caller's parent
  std::vector<std::pair<std::string, std::string>> binds;  ///< host path, path inside
  std::map<std::string, std::string> environment;          ///< added for all programs inside
};

/// Takes the arguments after "boot". Throws std::invalid_argument with a text for the user.
BootOptions ParseBootOptions(const std::vector<std::string>& arguments);

}  // namespace varnel::board

#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "app/command_line.h"
#include "app/supervisor.h"
#include "utils/board_places.h"

namespace varnel::app {

/// The board's fixed places.
struct DaemonPaths {
  std::filesystem::path log_directory = "/home/ruxo/printer_data/logs";
  std::filesystem::path uptime = "/proc/uptime";
  std::filesystem::path deployment = "/etc/varnel/deployment.json";
  std::string program_locator = "/usr/bin/which";
  std::map<std::string, std::string> programs = {{"which", program_locator},
                                                 {"tar", utils::board::kTar},
                                                 {"ffmpeg", utils::board::kFfmpeg},
                                                 {"openssl", "/usr/bin/openssl"}};
};

/// The whole life of the process after its command line is known: start-up, supervision, shutdown.
/// Ends the process with 0, or with 1 when an exception escapes.
[[noreturn]] void RunDaemon(LogTarget log_target, const DaemonPaths& paths = {},
                            const LocalBroker& broker = {});

}  // namespace varnel::app

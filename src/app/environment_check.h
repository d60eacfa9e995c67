#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace varnel::app {

/// Removes the log files that earlier releases left in the log directory.
void RemoveOldLogs(const std::filesystem::path& log_directory);

/// Reports which of the external programs the services need are there (name to path).
void CheckSystemPrograms(const std::string& locator,
                         const std::map<std::string, std::string>& programs);

void LogUptime(const std::filesystem::path& uptime_file);

}  // namespace varnel::app

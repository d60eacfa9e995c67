#include "app/environment_check.h"

#include <array>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/safe_exec.h"

namespace varnel::app {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "MAIN";
constexpr int kOldRotations = 7;
constexpr uint32_t kLocatorLimitMs = 5000;
constexpr size_t kUptimeBytes = 256;

void RemoveOldLog(const fs::path& file) {
  std::error_code error;
  fs::remove(file, error);  // one that is not there is no error
  if (error) VLOG_ERROR(kTag, "remove {} failed, reason: {}", file.string(), error.message());
}

bool IsLocated(const std::string& locator, const std::string& path) {
  const auto run = utils::SafeExec(locator).AddArg(path).SetTimeout(kLocatorLimitMs).TryExecute();
  if (!run) VLOG_ERROR(kTag, "{}: {}", locator, run.Why());
  return run && run->success;
}

}  // namespace

void RemoveOldLogs(const fs::path& log_directory) {
  for (const std::string stem : {"system_mgmt", "camera_service", "mqtt_agent"}) {
    RemoveOldLog(log_directory / (stem + ".log"));
    for (int i = 1; i <= kOldRotations; ++i)
      RemoveOldLog(log_directory / (stem + "." + std::to_string(i) + ".log"));
  }
}

void CheckSystemPrograms(const std::string& locator,
                         const std::map<std::string, std::string>& programs) {
  for (const auto& [name, path] : programs) {
    if (IsLocated(locator, path)) {
      VLOG_INFO(kTag, "System program {} is located in {}", name, path);
    } else {
      VLOG_ERROR(kTag, "System program {}({}) is not exists.", name, path);
    }
  }
}

void LogUptime(const fs::path& uptime_file) {
  std::string uptime = utils::ReadSmallFile(uptime_file, kUptimeBytes).value_or("unknown");
  while (!uptime.empty() && (uptime.back() == '\n' || uptime.back() == ' ')) uptime.pop_back();
  VLOG_INFO(kTag, "System uptime is {}", utils::LogText(uptime));
}

}  // namespace varnel::app

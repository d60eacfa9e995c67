#include "platform/upgrade.h"

#include <optional>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/command_output.h"
#include "utils/log.h"
#include "utils/log_printf.h"
#include "utils/log_text.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;

constexpr const char* kTag = "IMSYS";
constexpr uint32_t kMainTarget = 0;

void LogLines(const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) VLOG_INFO(kTag, "Upgrade: {}", utils::LogText(line, UpgradeOutput::kKept));
  }
}

HalStatus RunGuarded(utils::SafeExec& command, const UpgradeOutput& output) {
  std::optional<UpgradeOutputGuard> guard;
  try {
    guard.emplace(output);
  } catch (const std::system_error& error) {
    PLOG_WARN(kTag, "The output of the upgrade is not kept short: %s", error.what());
  }
  return hal_adapter::FromExitCode(run_command(command, 0).exit_code);
}

HalStatus RunScript(const UpgradeBoard& board, UpgradeLeftovers& leftovers, const char* package) {
  utils::SafeExec command(board.script);
  command.AddArg("upgrade").AddArg("all").AddArg(package).OutliveUs();
  std::optional<UpgradeOutput> output = UpgradeOutput::Create(board.output_dir);
  // A pipe would kill the script at its next output once the daemon is gone; a file does not.
  command.SetOutputFile(output ? output->Path() : "/dev/null");
  if (!output) return hal_adapter::FromExitCode(run_command(command, 0).exit_code);
  const HalStatus status = RunGuarded(command, *output);
  LogLines(output->Beginning());
  std::vector<UpgradeOutput> ended;
  ended.push_back(std::move(*output));
  leftovers.Keep(std::move(ended));
  return status;
}

}  // namespace

std::string upgrade_output_files(const UpgradeBoard& board) {
  return UpgradeOutput::NamesIn(board.output_dir);
}

HalStatus upgrade_firmware(const UpgradeBoard& board, UpgradeLeftovers& leftovers, uint32_t target,
                           const char* package) {
  if (target != kMainTarget) {
    PLOG_ERROR(kTag, "Do not support upgrading the target %d", static_cast<int>(target));
    return HalStatus::kNoMemory;
  }
  if (package == nullptr) return HalStatus::kInvalidParameter;
  PLOG_INFO(kTag, "Prepare for upgrading target %d", static_cast<int>(target));
  const HalStatus status = RunScript(board, leftovers, package);
  if (status != HalStatus::kSuccess) PLOG_ERROR(kTag, "Upgrade failed");
  return status;
}

}  // namespace varnel::platform

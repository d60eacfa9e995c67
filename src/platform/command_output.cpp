#include "platform/command_output.h"

#include <utility>

#include "utils/log.h"

namespace varnel::platform {

CommandOutput run_command(utils::SafeExec& command, size_t max_output) {
  auto run = command.SetOutputLimit(max_output).TryExecute();
  if (run) return {run->exit_code, std::move(run->standard_output), std::move(run->standard_error)};
  VLOG_ERROR("IMSYS", "Command '{}' was not started: {}", command.ToString(), run.Why());
  return {};
}

}  // namespace varnel::platform

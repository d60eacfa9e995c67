#include "platform/command_output.h"

#include <utility>

#include "utils/log.h"

namespace varnel::platform {

CommandOutput run_command(utils::SafeExec& command, size_t max_output) {
  try {
    utils::SafeExec::Result result = command.SetOutputLimit(max_output).Execute();
    return {result.exit_code, std::move(result.standard_output), std::move(result.standard_error)};
  } catch (const utils::SafeExecException& error) {
    VLOG_ERROR("IMSYS", "Command '{}' was not started: {}", command.ToString(), error.what());
    return {};
  }
}

}  // namespace varnel::platform

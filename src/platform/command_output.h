#pragma once

#include <cstddef>
#include <string>

#include "hal_interface/hal_status.h"
#include "utils/safe_exec.h"

namespace varnel::platform {

struct CommandOutput {
  /// The program's exit code as SafeExec gives it; -1 as well when it could not be started.
  hal_adapter::HalStatus status = hal_adapter::kHalFailure;
  std::string text;     ///< the start of its standard output
  std::string problem;  ///< the start of its standard error
};

/// Runs the command; what goes wrong with it ends up in the status.
[[nodiscard]] CommandOutput run_command(utils::SafeExec& command, size_t max_output);

}  // namespace varnel::platform

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "utils/safe_exec.h"

namespace varnel::platform {

struct CommandOutput {
  /// As SafeExec gives it; -1 as well when it could not be started.
  int32_t exit_code = -1;
  std::string text;     ///< the start of its standard output
  std::string problem;  ///< the start of its standard error
};

/// Runs the command; what goes wrong with it ends up in the exit code.
[[nodiscard]] CommandOutput run_command(utils::SafeExec& command, size_t max_output);

}  // namespace varnel::platform

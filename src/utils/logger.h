#pragma once

#include <cstddef>
#include <string>

#include "utils/clock.h"

namespace varnel::utils {

/// Makes a size-rotated file the target of all log lines of the process. It outlives its log
/// directory being removed, made read-only or full: lines are then dropped, and the file is tried
/// again every few seconds.
class Logger {
 public:
  /// Throws std::runtime_error on an empty name or path or a size of 0, and spdlog's exception when
  /// the file cannot be opened. The file is readable by its owner and group only.
  Logger(const std::string& name, const std::string& path, size_t max_size_mb, size_t max_files,
         Clock& clock = SystemClock::Instance());
};

}  // namespace varnel::utils

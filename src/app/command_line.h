#pragma once

#include <optional>

namespace varnel::app {

enum class LogTarget { kFile, kConsole };

/// No argument logs to the file, exactly "-v" to the console; anything else is a usage error.
std::optional<LogTarget> ParseCommandLine(int argc, const char* const* argv);

}  // namespace varnel::app

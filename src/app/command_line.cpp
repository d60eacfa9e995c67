#include "app/command_line.h"

#include <string_view>

namespace varnel::app {

std::optional<LogTarget> ParseCommandLine(int argc, const char* const* argv) {
  if (argc <= 1) return LogTarget::kFile;
  if (argc == 2 && std::string_view(argv[1]) == "-v") return LogTarget::kConsole;
  return std::nullopt;
}

}  // namespace varnel::app

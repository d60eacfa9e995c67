#include <cstdio>
#include <exception>
#include <span>

#include "replay/command_line.h"
#include "replay/merge.h"
#include "replay/replay.h"
#include "replay/terminal.h"

namespace {

constexpr int kIncomplete = 1;
constexpr int kWrongCall = 2;

int Run(const varnel::replay::Options& options) {
  if (options.merge) return varnel::replay::Merge(options) ? 0 : kIncomplete;
  std::string error;
  std::optional<varnel::replay::Input> input = varnel::replay::ReadInput(options, error);
  if (!input) {
    varnel::replay::Complain(error);
    return kIncomplete;
  }
  varnel::replay::CatchInterruption();
  return varnel::replay::Replay(options, std::move(*input)) ? 0 : kIncomplete;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::span arguments(argv, static_cast<size_t>(argc));
    const auto line = varnel::replay::ParseCommandLine(arguments.subspan(argc > 0 ? 1 : 0));
    if (line.help) return std::fputs(varnel::replay::kUsage, stdout) < 0 ? kIncomplete : 0;
    if (line.error.empty()) return Run(line.options);
    std::fprintf(stderr, "varnel-replay: %s\n\n%s", line.error.c_str(), varnel::replay::kUsage);
    return kWrongCall;
  } catch (const std::exception& e) {
    varnel::replay::Complain(e.what());
    return kIncomplete;
  }
}

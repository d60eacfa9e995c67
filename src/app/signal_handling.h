#pragma once

#include <atomic>
#include <cstdint>

namespace varnel::app {

/// Set by the first termination signal, read by the main loop.
extern std::atomic<uint8_t> shutdown_requested;

/// Crash signals are reported, termination signals ask for a shutdown (a second one ends the
/// process at once with 128 + signal), and terminal signals and SIGPIPE are ignored.
void InstallSignalHandling();

/// Tells the log that signals are handled from now on.
void LogSignalHandling();

}  // namespace varnel::app

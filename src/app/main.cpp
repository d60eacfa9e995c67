#include <cstdio>

#include "app/command_line.h"
#include "app/daemon.h"
#include "app/signal_handling.h"

int main(int argc, char** argv) {
  varnel::app::InstallSignalHandling();
  const auto log_target = varnel::app::ParseCommandLine(argc, argv);
  if (!log_target) {
    std::fputs("Usage: varnel [-v]\n", stderr);
    return 1;
  }
  varnel::app::LogSignalHandling();  // not before: a usage error is the only line of its run
  varnel::app::RunDaemon(*log_target);
}

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "app/command_line.h"
#include "app/daemon.h"
#include "app/signal_handling.h"
#include "comms/mqtt_library.h"

namespace {

/// Started without standard descriptors: what is opened next must not become one, or messages of
/// libraries end up in it.
void OpenStandardDescriptors() {
  int fd = -1;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardDescriptors();
  varnel::comms::IgnoreProxies();
  varnel::app::InstallSignalHandling();
  const auto log_target = varnel::app::ParseCommandLine(argc, argv);
  if (!log_target) {
    std::fputs("Usage: varnel [-v]\n", stderr);
    return 1;
  }
  varnel::app::LogSignalHandling();  // not before: a usage error is the only line of its run
  varnel::app::RunDaemon(*log_target);
}

#include "app/crash_report.h"

#include <errno.h>
#include <execinfo.h>
#include <signal.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <array>

#include "utils/child_registry.h"

namespace varnel::app {
namespace {

constexpr int kMaxFrames = 100;

const char* SignalName(int signal_number) {
  switch (signal_number) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGABRT:
      return "SIGABRT";
    case SIGBUS:
      return "SIGBUS";
    case SIGILL:
      return "SIGILL";
    default:
      return "UNKNOWN";
  }
}

void LogStack() {
  std::array<void*, kMaxFrames> frames{};
  const int count = backtrace(frames.data(), kMaxFrames);
  char** symbols = backtrace_symbols(frames.data(), count);
  if (!symbols) return;
  syslog(LOG_ERR, "Stack trace:");
  for (int i = 0; i < count; ++i) syslog(LOG_ERR, "  [%d] %s", i, symbols[i]);
  free(symbols);  // NOLINT: the library's array
}

}  // namespace

extern "C" void ReportCrash(int signal_number) {
  const int saved_errno = errno;
  // A crash inside this report, or one that waits for a lock the crashed thread holds, must not
  // keep the process.
  struct sigaction default_action = {};
  default_action.sa_handler = SIG_DFL;
  for (const int crash : {SIGSEGV, SIGABRT, SIGBUS, SIGILL, SIGALRM})
    sigaction(crash, &default_action, nullptr);
  alarm(5);

  utils::EndChildren();  // nobody would watch their time limits any more
  openlog(program_invocation_short_name, LOG_PID | LOG_CONS, LOG_USER);
  syslog(LOG_ERR, "Process crashed with signal %d (%s), PID: %d", signal_number,
         SignalName(signal_number), getpid());
  LogStack();
  closelog();

  alarm(0);
  errno = saved_errno;
  raise(signal_number);
}

void PrepareCrashReport() {
  std::array<void*, 1> frame{};
  backtrace(frame.data(), 1);
}

}  // namespace varnel::app

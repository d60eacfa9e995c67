#include "app/crash_report.h"

#include <errno.h>
#include <execinfo.h>
#include <signal.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "utils/child_registry.h"

namespace varnel::app {
namespace {

constexpr int kMaxFrames = 100;
constexpr unsigned kReportSeconds = 5;

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

/// The thread that reports, and the signal it reports; 0 before.
std::atomic<pid_t> reporting_thread{0};
std::atomic<int> reported_signal{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "signal handlers use them");

/// 0 when the calling thread is to report, else the thread that does.
pid_t Claim(int signal_number) {
  pid_t nobody = 0;
  if (!reporting_thread.compare_exchange_strong(nobody, gettid())) return nobody;
  reported_signal = signal_number;
  return 0;
}

void SetDefault(int signal_number) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(signal_number, &action, nullptr);
}

/// Within a handler the signal is blocked in its thread.
void DieBy(int signal_number) {
  SetDefault(signal_number);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal_number);
  pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
  raise(signal_number);
}

extern "C" void EndStuckReport(int /*alarm*/) {
  DieBy(reported_signal);
}

/// A report that waits for a lock which the crashed thread holds must not keep the process.
void LimitReport() {
  struct sigaction action = {};
  action.sa_handler = EndStuckReport;
  sigaction(SIGALRM, &action, nullptr);
  alarm(kReportSeconds);
}

/// Another thread's report goes on until the process ends by it.
[[noreturn]] void AwaitEnd() {
  for (;;) pause();
}

}  // namespace

extern "C" void ReportCrash(int signal_number) {
  const int saved_errno = errno;
  const pid_t reporter = Claim(signal_number);
  if (reporter != 0 && reporter != gettid()) AwaitEnd();
  if (reporter == gettid()) DieBy(reported_signal);  // a crash inside the report ends it
  LimitReport();

  utils::EndChildren();  // nobody would watch their time limits any more
  openlog(program_invocation_short_name, LOG_PID | LOG_CONS, LOG_USER);
  syslog(LOG_ERR, "Process crashed with signal %d (%s), PID: %d", signal_number,
         SignalName(signal_number), getpid());
  LogStack();
  closelog();

  alarm(0);
  SetDefault(signal_number);
  errno = saved_errno;
  raise(signal_number);
}

void PrepareCrashReport() {
  std::array<void*, 1> frame{};
  backtrace(frame.data(), 1);
}

}  // namespace varnel::app

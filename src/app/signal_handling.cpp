#include "app/signal_handling.h"

#include <signal.h>
#include <unistd.h>

#include "app/crash_report.h"
#include "utils/child_registry.h"
#include "utils/log.h"

namespace varnel::app {

std::atomic<uint8_t> shutdown_requested{0};
static_assert(std::atomic<uint8_t>::is_always_lock_free, "a signal handler writes it");

namespace {

constexpr const char* kTag = "MA_SIG";

extern "C" void RequestShutdown(int signal_number) {
  if (shutdown_requested.exchange(1) == 0) return;
  utils::EndChildren();
  _exit(128 + signal_number);
}

void Install(int signal_number, void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigemptyset(&action.sa_mask);
  sigaction(signal_number, &action, nullptr);
}

/// A parent may have left them blocked, and then nothing would ever arrive. SIGALRM limits the
/// crash report.
void UnblockSignals() {
  sigset_t needed;
  sigemptyset(&needed);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) sigaddset(&needed, number);
  pthread_sigmask(SIG_UNBLOCK, &needed, nullptr);
}

}  // namespace

void InstallSignalHandling() {
  PrepareCrashReport();
  for (const int number : {SIGSEGV, SIGABRT, SIGBUS, SIGILL})
    Install(number, ReportCrash, SA_RESTART);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) Install(number, RequestShutdown, 0);
  for (const int number : {SIGPIPE, SIGIO, SIGTSTP, SIGTTIN, SIGTTOU}) Install(number, SIG_IGN, 0);
  // Inherited as ignored it would take the exit status of every child away.
  Install(SIGCHLD, SIG_DFL, 0);
  UnblockSignals();
}

void LogSignalHandling() {
  VLOG_INFO(kTag, "Signal handler initialized");
}

}  // namespace varnel::app

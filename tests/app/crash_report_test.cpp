#include "app/crash_report.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "app/signal_handling.h"

namespace {

void (*in_mid_report)() = nullptr;
std::atomic<bool> reporting{false};

}  // namespace

// These stand in front of the C library's own functions.
extern "C" {
char** backtrace_symbols(void* const* /*frames*/, int /*count*/) {
  reporting = true;
  in_mid_report();
  return nullptr;
}
void closelog() {
  EXPECT_EQ(::write(STDERR_FILENO, "whole", 5), 5);
}
unsigned alarm(unsigned seconds) {
  const itimerval limit{{}, {0, static_cast<suseconds_t>(seconds) * 100'000}};
  ::setitimer(ITIMER_REAL, &limit, nullptr);
  return 0;
}
}

namespace varnel::app {
namespace {

void CrashWith(void (*event)()) {
  in_mid_report = event;
  InstallSignalHandling();
  const std::jthread other([] {
    while (!reporting) std::this_thread::yield();
    ::raise(SIGBUS);
  });
  ::raise(SIGSEGV);
}

TEST(CrashReportTest, NothingThatHappensMeanwhileChangesTheSignalOfTheEnd) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer holds signals back";
#endif
  // sleeps: the other thread's report takes its time
  EXPECT_EXIT(CrashWith([] { ::usleep(20'000); }), testing::KilledBySignal(SIGSEGV), "whole");
  EXPECT_EXIT(CrashWith([] { ::pause(); }), testing::KilledBySignal(SIGSEGV), "^$") << "stuck";
  EXPECT_EXIT(CrashWith([] { ::raise(SIGILL); }), testing::KilledBySignal(SIGSEGV), "^$");
}

}  // namespace
}  // namespace varnel::app

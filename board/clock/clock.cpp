// Loaded before all libraries of a program, it shows it a wall clock that is ahead of the system's
// by the number of seconds in a file, which may change while the program runs. The monotonic clock
// stays as it is. Waits until a time of the wall clock are turned into waits on the monotonic one.
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

constexpr const char* kFile = "/run/varnel-board/clock-offset";
constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kLookAgain = kSecond / 50;

std::atomic<int64_t> offset_ns{0};
std::atomic<int64_t> next_look_ns{0};

/// Neither an interposed function nor one of a sanitizer.
int64_t SystemClock(clockid_t clock) {
  timespec now{};
  ::syscall(SYS_clock_gettime, clock, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

void ReadOffset() {
  const int saved = errno;
  const auto file = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, kFile, O_RDONLY | O_CLOEXEC));
  std::array<char, 32> text{};
  const long got = file < 0 ? 0 : ::syscall(SYS_read, file, text.data(), text.size() - 1);
  if (file >= 0) ::syscall(SYS_close, file);
  offset_ns = got > 0 ? std::strtoll(text.data(), nullptr, 10) * kSecond : 0;
  errno = saved;
}

int64_t Offset() {
  const int64_t now = SystemClock(CLOCK_MONOTONIC);
  int64_t due = next_look_ns;
  if (now >= due && next_look_ns.compare_exchange_strong(due, now + kLookAgain)) ReadOffset();
  return offset_ns;
}

int64_t Now() {
  return SystemClock(CLOCK_REALTIME) + Offset();
}

timespec Time(int64_t ns) {
  const int64_t rest = (ns % kSecond + kSecond) % kSecond;
  return {(ns - rest) / kSecond, rest};
}

/// When on the monotonic clock the shown clock will have this time.
timespec Monotonic(const timespec& shown) {
  const int64_t wait = shown.tv_sec * kSecond + shown.tv_nsec - Now();
  return Time(SystemClock(CLOCK_MONOTONIC) + wait);
}

/// As the C library keeps it: set for a variable that waits on the monotonic clock.
bool IsMonotonic(const pthread_cond_t* condition) {
  constexpr unsigned kMonotonicFlag = 2;
  return (condition->__data.__wrefs & kMonotonicFlag) != 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const bool shown = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  if (!shown) return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  *time = Time(Now());
  return 0;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* time, void*) noexcept {
  const timespec now = Time(Now());
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

__attribute__((visibility("default"))) time_t time(time_t* out) noexcept {
  const time_t now = Time(Now()).tv_sec;
  if (out != nullptr) *out = now;
  return now;
}

__attribute__((visibility("default"))) int pthread_cond_timedwait(pthread_cond_t* condition,
                                                                  pthread_mutex_t* mutex,
                                                                  const timespec* until) {
  const timespec end = IsMonotonic(condition) ? *until : Monotonic(*until);
  return pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
}

__attribute__((visibility("default"))) int sem_timedwait(sem_t* semaphore, const timespec* until) {
  const timespec end = Monotonic(*until);
  return sem_clockwait(semaphore, CLOCK_MONOTONIC, &end);
}

__attribute__((visibility("default"))) int pthread_mutex_timedlock(pthread_mutex_t* mutex,
                                                                   const timespec* until) noexcept {
  const timespec end = Monotonic(*until);
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
}
}

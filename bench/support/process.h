#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace varnel::bench {

/// What /proc tells about a running process. A process that is gone throws std::runtime_error.
struct ProcessSize {
  int64_t resident_kib = 0;
  int64_t peak_kib = 0;  ///< the most that was resident since the start or ForgetPeak()
  int64_t threads = 0;
  int64_t descriptors = 0;
};
ProcessSize SizeOf(pid_t pid);
void ForgetPeak(pid_t pid);
/// Processor time used so far by all its threads.
double CpuSeconds(pid_t pid);
/// How often its threads went to sleep so far: each ends with one wake-up.
int64_t VoluntarySwitches(pid_t pid);

/// A started program with standard input and output on /dev/null. The destructor ends it.
class Child {
 public:
  /// Throws std::runtime_error when it cannot be started.
  explicit Child(const std::vector<std::string>& command);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t Pid() const { return pid_; }
  void Signal(int number) const;
  /// Exit status, 128 + signal number.
  int Wait();

 private:
  pid_t pid_ = -1;
};

/// Runs a program to its end; throws unless it exits with 0.
void Run(const std::vector<std::string>& command);

}  // namespace varnel::bench

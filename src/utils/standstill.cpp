#include "utils/standstill.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "utils/atomic_file.h"

namespace varnel::utils {
namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxStatBytes = 4096;
constexpr milliseconds kLongestPause{1000};
constexpr milliseconds kShortestPause{10};

/// From /proc/PID/stat: user and system time of the process and of the children it waited for.
uint64_t ProcessorTicks(pid_t process) {
  constexpr int kFieldsBefore = 11;  // between the name and the first of the four
  const std::string stat =
      ReadSmallFile("/proc/" + std::to_string(process) + "/stat", kMaxStatBytes).value_or("");
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return 0;
  std::istringstream fields(stat.substr(name_end + 1));
  std::string skipped;
  for (int i = 0; i < kFieldsBefore; ++i) fields >> skipped;
  uint64_t all = 0;
  uint64_t ticks = 0;
  for (int i = 0; i < 4 && fields >> ticks; ++i) all += ticks;
  return all;
}

}  // namespace

Standstill::Standstill(pid_t child, WorkLimits limits)
    : child_(child),
      limits_(std::move(limits)),
      pause_(std::clamp(milliseconds(limits_.still_ms / 10), kShortestPause, kLongestPause)),
      changed_(std::chrono::steady_clock::now()),
      looked_(changed_) {}

Standstill::Work Standstill::Look() const {
  static const auto kTicksPerSecond = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  Work work;
  work.processor_ms = ProcessorTicks(child_) * 1000 / kTicksPerSecond;
  struct stat info {};
  if (!limits_.progress.empty() && ::stat(limits_.progress.c_str(), &info) == 0)
    work.progress_bytes = info.st_size;
  return work;
}

bool Standstill::Passed() {
  const Time now = std::chrono::steady_clock::now();
  if (now - looked_ < pause_) return false;
  looked_ = now;
  const Work work = Look();
  if (work != last_) changed_ = now;
  last_ = work;
  return now - changed_ >= milliseconds(limits_.still_ms) ||
         work.processor_ms > limits_.processor_ms;
}

}  // namespace varnel::utils

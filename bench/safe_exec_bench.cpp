// What SafeExec adds to a bare start and wait, how its cost depends on our memory, and how soon it
// sees a child's end. Prints medians and ratios; the compared ways take turns, so that the
// machine's mood hits all alike.
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "utils/safe_exec.h"

namespace {

using varnel::utils::SafeExec;

constexpr int kRuns = 1500;
constexpr int kBlocks = 10;
constexpr int kRunsPerBlock = 100;
constexpr size_t kMegabyte = size_t{1} << 20U;
constexpr const char* kStamp = "--stamp";

double Now() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::micro>(now).count();
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double Timed(const std::function<void()>& work) {
  const double start = Now();
  work();
  return Now() - start;
}

/// Memory that is really there, as the daemon's would be.
class Ballast {
 public:
  explicit Ballast(size_t bytes)
      : bytes_(bytes),
        memory_(
            ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    if (memory_ == MAP_FAILED) {
      std::abort();
    }
    std::memset(memory_, 1, bytes_);
  }
  ~Ballast() { ::munmap(memory_, bytes_); }
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;

 private:
  size_t bytes_;
  void* memory_;
};

void BareTrue() {
  std::string program = "/bin/true";
  char* const arguments[] = {program.data(), nullptr};
  pid_t pid = -1;
  if (::posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments, environ) != 0 ||
      ::waitpid(pid, nullptr, 0) != pid) {
    std::abort();
  }
}

void SafeTrue() {
  if (!SafeExec("/bin/true").Execute().success) {
    std::abort();
  }
}

/// The child prints the time as its last act; returns how much later the caller went on.
double DelayAfterEnd(const std::string& self) {
  const auto result = SafeExec(self).AddArg(kStamp).Execute();
  return Now() - std::stod(result.standard_output);
}

double BareDelayAfterEnd(std::string self) {
  int ends[2];
  if (::pipe(ends) != 0) {
    std::abort();
  }
  std::string option = kStamp;
  char* const arguments[] = {self.data(), option.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  pid_t pid = -1;
  if (::posix_spawn(&pid, self.c_str(), &actions, nullptr, arguments, environ) != 0) {
    std::abort();
  }
  ::waitpid(pid, nullptr, 0);
  const double end = Now();
  char text[64] = {};
  const ssize_t got = ::read(ends[0], text, sizeof text - 1);
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[0]);
  ::close(ends[1]);
  return got > 0 ? end - std::strtod(text, nullptr) : 0;
}

void CompareWithBareStart() {
  std::vector<double> bare;
  std::vector<double> safe;
  for (int i = 0; i < kRuns; ++i) {
    bare.push_back(Timed(BareTrue));
    safe.push_back(Timed(SafeTrue));
  }
  std::printf("/bin/true: bare %.0f us, SafeExec %.0f us, ratio %.2f (at most 1.3)\n", Median(bare),
              Median(safe), Median(safe) / Median(bare));
}

void CompareMemorySizes() {
  std::vector<double> small;
  std::vector<double> large;
  const Ballast base(20 * kMegabyte);
  for (int block = 0; block < kBlocks; ++block) {
    for (int i = 0; i < kRunsPerBlock; ++i) {
      small.push_back(Timed(SafeTrue));
    }
    const Ballast more(280 * kMegabyte);
    for (int i = 0; i < kRunsPerBlock; ++i) {
      large.push_back(Timed(SafeTrue));
    }
  }
  std::printf("resident memory: 20 MB %.0f us, 300 MB %.0f us, ratio %.2f (at most 1.2)\n",
              Median(small), Median(large), Median(large) / Median(small));
}

void CompareDelays(const std::string& self) {
  std::vector<double> bare;
  std::vector<double> safe;
  for (int i = 0; i < kRuns / 3; ++i) {
    bare.push_back(BareDelayAfterEnd(self));
    safe.push_back(DelayAfterEnd(self));
  }
  std::printf("from the child's last act to the caller: blocking wait %.0f us, SafeExec %.0f us\n",
              Median(bare), Median(safe));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], kStamp) == 0) {
    std::printf("%.3f\n", Now());
    return 0;
  }
  CompareWithBareStart();
  CompareMemorySizes();
  CompareDelays(argv[0]);
}

#include "utils/child_registry.h"

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>

namespace varnel::utils {
namespace {

constexpr size_t kMaxChildren = 1024;
/// A start takes about a millisecond; it may also be one that the calling signal handler
/// interrupts.
constexpr int kMaxPauses = 100;
constexpr timespec kPause{0, 1'000'000};

std::array<std::atomic<pid_t>, kMaxChildren> children{};
std::atomic<int> starts{0};
std::atomic<bool> ending{false};
static_assert(std::atomic<pid_t>::is_always_lock_free, "a signal handler reads them");

void ReplaceFirst(pid_t from, pid_t to) {
  for (std::atomic<pid_t>& child : children) {
    pid_t expected = from;
    if (child == from && child.compare_exchange_strong(expected, to)) {
      return;
    }
  }
}

}  // namespace

ChildStart::ChildStart() {
  ++starts;
}

ChildStart::~ChildStart() {
  --starts;
}

bool ChildStart::Refused() const {
  return ending;
}

void RegisterChild(pid_t pid) {
  ReplaceFirst(0, pid);
}

void UnregisterChild(pid_t pid) {
  ReplaceFirst(pid, 0);
}

void EndChildren() {
  ending = true;
  for (int i = 0; starts != 0 && i < kMaxPauses; ++i) {
    ::nanosleep(&kPause, nullptr);
  }
  for (const std::atomic<pid_t>& child : children) {
    const pid_t pid = child;
    if (pid != 0) {
      ::kill(-pid, SIGKILL);
      ::kill(pid, SIGKILL);  // it may have moved to another group
    }
  }
}

}  // namespace varnel::utils

#include "utils/idle_priority.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace varnel::utils {
namespace {

constexpr int kOneThread = 1;
constexpr int kIdleClass = 3 << 13;
constexpr int kLowest = 19;

void MakeDiskIdle(pid_t pid) {
  ::syscall(SYS_ioprio_set, kOneThread, pid, kIdleClass);
}

}  // namespace

void MakeIdle(pid_t pid) {
  const sched_param parameters{};
  ::sched_setscheduler(pid, SCHED_IDLE, &parameters);
  MakeDiskIdle(pid);
}

void MakeThreadIdle() {
  const auto thread = static_cast<pid_t>(::syscall(SYS_gettid));
  (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), kLowest);
  MakeDiskIdle(thread);
}

}  // namespace varnel::utils

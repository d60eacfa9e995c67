// A process that is killed before any of its changes to the disk loses nothing.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "service/camera/timelapse_world.h"
#include "support/log_capture.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

/// The number of the system call that a stopped thread is about to make, or has made.
long SystemCall(pid_t thread) {
  return ::ptrace(PTRACE_PEEKUSER, thread, offsetof(user_regs_struct, orig_rax), 0);
}

bool ChangesTheDisk(long call) {
  static const std::set<long> calls = {SYS_rename,    SYS_renameat2, SYS_unlink,  SYS_unlinkat,
                                       SYS_rmdir,     SYS_mkdir,     SYS_symlink, SYS_fsync,
                                       SYS_ftruncate, SYS_renameat};
  return calls.count(call) > 0;
}

/// Runs `work` in a child and kills it when it is about to make its `fatal`-th change to the disk.
/// True when it was killed, false when it came to its end before.
template <class Work>
bool RunUntilChange(int fatal, Work work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    work();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
  ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
  std::set<pid_t> inside;  // threads between entry and return of a call
  int changes = 0;
  for (;;) {
    const pid_t thread = ::waitpid(-1, &status, __WALL);
    if (thread < 0) return false;
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      if (thread == child) return WIFSIGNALED(status);
      continue;
    }
    long signal = WSTOPSIG(status);
    if (signal == (SIGTRAP | 0x80)) {
      signal = 0;
      const bool entry = inside.insert(thread).second;
      if (!entry) inside.erase(thread);
      if (entry && ChangesTheDisk(SystemCall(thread)) && ++changes == fatal) ::kill(child, SIGKILL);
    } else if (signal == SIGTRAP || signal == SIGSTOP) {
      signal = 0;
    }
    ::ptrace(PTRACE_SYSCALL, thread, nullptr, signal);
  }
}

class TimelapseKillTest : public testing::Test {
 protected:
  /// A print of two photos, its film, and the film's deletion when asked for.
  static void Print(TimelapseWorld& world, bool with_deletion) {
    const auto service = world.Service();
    if (!service->StartNew({})) return;
    const std::string index = TimelapseRoot(world.paths_).NextIndex();
    (void)service->TakePhoto();
    (void)service->TakePhoto();
    (void)service->Stop();
    (void)world.Film(*service, index);
    (void)test::Eventually([&] { return world.State(index) == "FINISHED\n"; });
    if (with_deletion) (void)service->Store().Delete(index);
  }

  /// After the next start: nothing half-made, and a film that is listed plays.
  static void ExpectSound(TimelapseWorld& world) {
    const auto service = world.Service();
    const auto instances = world.Instances();
    ASSERT_LE(instances.size(), 1U);
    const std::string index = instances.empty() ? "" : instances.front();
    if (world.State(index) == "ACTIVATED\n") {
      // Killed while it printed: it goes on with what was taken.
      const size_t taken = PhotosIn(world.paths_.root / index);
      ASSERT_TRUE(service->Continue());
      ASSERT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
      ASSERT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
      const std::string film = world.Film(*service, index);
      EXPECT_EQ(static_cast<size_t>(std::count(film.begin(), film.end(), '\n')), taken + 2) << film;
    } else if (!index.empty()) {
      EXPECT_EQ(world.Film(*service, index), "a2\na1\na2\n");
    }
    EXPECT_TRUE(index.empty() ||
                test::Eventually([&] { return world.State(index) == "FINISHED\n"; }));
    const auto list = service->Store().List({});
    EXPECT_EQ(list["count"], instances.size());
    EXPECT_THAT(world.Leftovers(), IsEmpty());
  }
  static size_t PhotosIn(const fs::path& directory) {
    return TimelapseInstance(directory, {}, TimelapseState::kActivated).Photos().size();
  }

  test::LogCapture log_;
};

TEST_F(TimelapseKillTest, NothingIsLostAtAnyStep) {
  constexpr int kMostChanges = 400;
  int fatal = 1;
  for (; fatal < kMostChanges; ++fatal) {
    TimelapseWorld world;
    const bool killed = RunUntilChange(fatal, [&world] { Print(world, true); });
    SCOPED_TRACE("killed before change " + std::to_string(fatal));
    ASSERT_NO_FATAL_FAILURE(ExpectSound(world));
    if (!killed) break;
  }
  RecordProperty("changes", fatal);
  EXPECT_GT(fatal, 40);
  EXPECT_LT(fatal, kMostChanges);
}

}  // namespace
}  // namespace varnel::service

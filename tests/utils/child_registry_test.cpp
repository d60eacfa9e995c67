#include "utils/child_registry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "support/eventually.h"
#include "support/temp_dir.h"
#include "utils/safe_exec.h"

namespace varnel::utils {
namespace {

SafeExec Shell(const std::string& script) {
  SafeExec command("/bin/sh");
  command.AddArg("-c").AddArg(script);
  return command;
}

/// A child that tells its start through a pipe; the pipe's end comes when it lives no more.
class ToldChild {
 public:
  ToldChild(const std::string& pipe, const std::string& rest)
      : command_(Shell("exec 3>" + pipe + "; echo $$ >&3; " + rest)), pipe_(pipe) {
    EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  }
  pid_t Start(bool outlives_us) {
    if (outlives_us) command_.OutliveUs();
    result_ = command_.ExecuteAsync();
    from_.open(pipe_);
    pid_t pid = 0;
    EXPECT_TRUE(from_ >> pid);
    return pid;
  }
  bool Lives() {
    std::string word;
    return static_cast<bool>(from_ >> word);
  }
  int ExitCode() { return result_.get().exit_code; }

 private:
  SafeExec command_;
  const std::string pipe_;
  std::ifstream from_;
  std::future<SafeExec::Result> result_;
};

void EndOneOfTwo() {
  const test::TempDir directory;
  ToldChild bound(directory / "bound", "sleep 1000 & wait");
  ToldChild free(directory / "free", "exec sleep 1000");
  (void)bound.Start(false);
  const pid_t survivor = free.Start(true);
  EndChildren();
  EXPECT_FALSE(bound.Lives()) << "its own child holds the pipe as well";
  EXPECT_EQ(bound.ExitCode(), 128 + SIGKILL);
  EXPECT_THROW((void)SafeExec("/bin/true").Execute(), SafeExecException);
  ::kill(survivor, SIGTERM);
  EXPECT_EQ(free.ExitCode(), 128 + SIGTERM);
}

TEST(ChildRegistryDeathTest, ChildrenEndWithUsUnlessTheyAreToOutliveUs) {
  EXPECT_EXIT(
      {
        EndOneOfTwo();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ChildRegistryDeathTest, AKillThatCannotBeHandledEndsThemAsWell) {
  const test::TempDir directory;
  EXPECT_EXIT(
      {
        ToldChild bound(directory / "bound", "exec sleep 1000");
        ToldChild free(directory / "free", "exec sleep 1000");
        std::ofstream(directory / "pids") << bound.Start(false) << ' ' << free.Start(true);
        ::kill(::getpid(), SIGKILL);
      },
      testing::KilledBySignal(SIGKILL), "");
  pid_t bound = 0;
  pid_t survivor = 0;
  std::ifstream(directory / "pids") >> bound >> survivor;
  ASSERT_GT(bound, 0);
  ASSERT_GT(survivor, 0);
  const auto ended = [bound] {
    const std::string state = test::ReadFile("/proc/" + std::to_string(bound) + "/stat");
    return state.empty() || state.find(") Z") != std::string::npos;
  };
  EXPECT_TRUE(test::Eventually(ended));
  EXPECT_EQ(::kill(survivor, SIGKILL), 0);
}

}  // namespace
}  // namespace varnel::utils

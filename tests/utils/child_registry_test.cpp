#include "utils/child_registry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

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
  SafeExec& Command() { return command_; }
  pid_t Start() {
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

void ExpectOneOfTwoToEnd() {
  const test::TempDir directory;
  ToldChild bound(directory / "bound", "sleep 1000 & wait");
  ToldChild free(directory / "free", "exec sleep 1000");
  (void)bound.Start();
  free.Command().OutliveUs();
  const pid_t survivor = free.Start();
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
        ExpectOneOfTwoToEnd();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace varnel::utils

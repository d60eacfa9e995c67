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

/// A pipe that a child tells its start through; its end comes when nobody holds it any more.
std::string MakeFifo(const std::string& path) {
  EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
  return path;
}

void EndOneOfTwo() {
  const test::TempDir directory;
  const std::string bound = MakeFifo(directory / "bound");
  const std::string free = MakeFifo(directory / "free");
  SafeExec leaves = Shell("exec 3>" + bound + "; echo up >&3; sleep 1000 & wait");
  SafeExec stays = Shell("exec 3>" + free + "; echo $$ >&3; exec sleep 1000");
  stays.OutliveUs();
  auto left = leaves.ExecuteAsync();
  auto stayed = stays.ExecuteAsync();
  std::ifstream from_bound(bound);
  std::ifstream from_free(free);
  std::string word;
  pid_t survivor = 0;
  ASSERT_TRUE(from_bound >> word);
  ASSERT_TRUE(from_free >> survivor);

  EndChildren();
  EXPECT_FALSE(from_bound >> word) << "its own child holds the pipe as well";
  EXPECT_EQ(left.get().exit_code, 128 + SIGKILL);
  EXPECT_THROW((void)SafeExec("/bin/true").Execute(), SafeExecException);
  ::kill(survivor, SIGTERM);
  EXPECT_EQ(stayed.get().exit_code, 128 + SIGTERM);
}

TEST(ChildRegistryDeathTest, ChildrenEndWithUsUnlessTheyAreToOutliveUs) {
  EXPECT_EXIT(
      {
        EndOneOfTwo();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace varnel::utils

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "platform/upgrade.h"
#include "platform/upgrade_output.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "utils/owned.h"

namespace varnel::platform {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// A named pipe that neither side waits to open.
class Fifo {
 public:
  explicit Fifo(const std::string& path) {
    if (::mkfifo(path.c_str(), 0600) == 0) {
      end_.Reset(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
  }
  bool WaitForText() const {
    pollfd end = {end_.Get(), POLLIN, 0};
    return ::poll(&end, 1, 20'000) == 1;
  }
  bool Put() const { return ::write(end_.Get(), "\n", 1) == 1; }

 private:
  utils::UniqueFd end_;
};

class UpgradeTest : public testing::Test {
 protected:
  int32_t Upgrade(const char* script) {
    UpgradeBoard board;
    board.script = script != nullptr ? dir_.WriteScript("upgrade.sh", script) : dir_ / "none";
    board.output_dir = dir_.Path();
    return static_cast<int32_t>(upgrade_firmware(board, leftovers_, 0, "/userdata/a b.swu"));
  }

  size_t Outputs() const { return UpgradeOutput::FindIn(dir_.Path()).size(); }

  test::LogCapture log_;
  test::TempDir dir_;
  UpgradeLeftovers leftovers_;
};

TEST_F(UpgradeTest, RunsTheScriptAndLogsWhatItSays) {
  EXPECT_EQ(Upgrade(R"(echo "$1,$2,$3,$#"; echo oops >&2)"), 0);
  EXPECT_TRUE(log_.Has("IMSYS", "Upgrade: upgrade,all,/userdata/a b.swu,3"));
  EXPECT_TRUE(log_.Has("IMSYS", "Upgrade: oops"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.Path()), {}), 1) << "only the script";
}

TEST_F(UpgradeTest, PassesTheScriptsFailureUp) {
  EXPECT_EQ(Upgrade("exit 7"), 7);
  EXPECT_EQ(Upgrade("kill -9 $$"), 137);
  EXPECT_EQ(Upgrade(nullptr), 127);
}

TEST_F(UpgradeTest, KeepsTheFirst40960BytesOfItsOutput) {
  EXPECT_EQ(Upgrade("head -c 40959 /dev/zero | tr '\\0' x; echo; echo beyond"), 0);
  EXPECT_THAT(log_.Text(), HasSubstr(std::string(40'959, 'x')));
  EXPECT_THAT(log_.Text(), testing::Not(HasSubstr("beyond")));
}

/// Both the script and what it leaves behind wait for the cut of their own output.
TEST_F(UpgradeTest, LongOutputIsCutWhileTheScriptGoesOn) {
  constexpr const char* kScript = R"sh(
said() { stat -L -c %s /proc/$$/fd/2; }
echo first; head -c 3000000 /dev/zero; i=0
while [ "$(said)" -gt 1048576 ] && [ $((i += 1)) -lt 5000 ]; do :; done
echo last; [ "$(said)" -le 1048576 ] || exit
(cd "${0%/*}"; read go < ended; head -c 3000000 /dev/zero
while [ "$(said)" -gt 1048576 ]; do :; done; echo > cut) &)sh";
  const Fifo ended(dir_ / "ended");
  const Fifo cut(dir_ / "cut");
  EXPECT_EQ(Upgrade(kScript), 0);
  EXPECT_TRUE(log_.Has("IMSYS", "Upgrade: first"));
  EXPECT_EQ(Outputs(), 1U) << "is still written to";
  EXPECT_TRUE(ended.Put());
  EXPECT_TRUE(cut.WaitForText());
  EXPECT_TRUE(test::Eventually([&] { return Outputs() == 0; }));
}

TEST_F(UpgradeTest, TheScriptFinishesThoughTheDaemonIsKilled) {
  const Fifo started(dir_ / "started");
  const Fifo killed(dir_ / "killed");
  const Fifo ended(dir_ / "ended");
  const pid_t daemon = ::fork();
  if (daemon == 0) {
    ::_exit(
        Upgrade("cd \"${0%/*}\"; echo > started; read go < killed;"
                "echo still; echo here >&2; echo > ended"));
  }
  EXPECT_TRUE(started.WaitForText());
  ::kill(daemon, SIGKILL);
  ::waitpid(daemon, nullptr, 0);
  EXPECT_TRUE(killed.Put());
  EXPECT_TRUE(ended.WaitForText());
  const fs::path said_in = UpgradeOutput::FindIn(dir_.Path()).at(0).Path();
  EXPECT_EQ(test::ReadFile(said_in), "still\nhere\n");
  ASSERT_EQ(::symlink("gone", (dir_ / ".upgrade-link").c_str()), 0);
  {
    const utils::UniqueFd writer(::open(said_in.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    leftovers_.Keep(UpgradeOutput::FindIn(dir_.Path()));
    EXPECT_EQ(Outputs(), 1U) << "its script runs";
  }
  EXPECT_TRUE(test::Eventually([&] { return Outputs() == 0; }));
}

}  // namespace
}  // namespace varnel::platform

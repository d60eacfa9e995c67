// The virtual board itself, as far as the tests of the daemon would not notice.
#include <gmock/gmock.h>

#include "support/temp_dir.h"
#include "virtual_board/client/board.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

using testing::HasSubstr;

BootOptions WithoutDaemon() {
  BootOptions options;
  options.start_daemon = false;
  return options;
}

TEST(BoardTest, ABoardThatCannotComeUpSaysSoAtOnce) {
  BootOptions options = WithoutDaemon();
  options.daemon = "/nowhere/varnel";
  EXPECT_THROW(Board{options}, std::runtime_error);
}

TEST(BoardTest, ABoardKeepsWhoItIs) {
  BootOptions options = WithoutDaemon();
  const test::TempDir directory;
  options.directory = directory.Path();
  std::string storage;
  {
    const Board board(options);
    storage = ReadFile(board.Paths().Dev() / "mmcblk0");
    EXPECT_EQ(storage.size(), 26'624U + 1024U);
    EXPECT_EQ(storage.substr(26'624, 5), std::string("\x65\x1E\x8A\xBD\0", 5));
    EXPECT_THAT(storage, HasSubstr(R"("ProductCode":"VBOARD","SerialNumber":"VB)"));
    EXPECT_EQ(board.Shell("grep -q '^[0-9]' /etc/VERSION /etc/FULLVERSION").status, 0);
  }
  const Board board(options);
  EXPECT_TRUE(ReadFile(board.Paths().Dev() / "mmcblk0") == storage);
  const auto written = board.Shell(
      "head -c 32 /dev/zero >/oem/key; echo PRIVATE | varnel-identity --serial S1 --set 'a=[1]' "
      "--private-key-file - /dev/mmcblk0 && tail -c 1019 /dev/mmcblk0 | tr -d '\\0'; "
      "varnel-identity --serial S1 --key-file /oem/key /dev/mmcblk0 && stat -c %s /dev/mmcblk0");
  EXPECT_EQ(written.out, R"({"PrivateKey":"PRIVATE","SerialNumber":"S1","a":[1]}27648)"
                         "\n");
  EXPECT_EQ(ReadFile(board.Paths().Dev() / "mmcblk0")[26'628], 1) << "changed in place";
}

TEST(BoardTest, AnUpgradeRestartsTheDaemonOrKillsIt) {
  BootOptions options = WithoutDaemon();
  options.daemon = "/usr/bin/sleep";
  const Board board(options);
  ASSERT_TRUE(board.StartDaemon({"1000"}));
  const pid_t before = board.DaemonPid();
  const std::string upgrade =
      "printf 123 >/tmp/p; /home/ruxo/bin/systemUpgrade.sh upgrade all /tmp/p";
  board.OrderUpgrade("install 2.0.0-next\n");
  EXPECT_EQ(board.Shell(upgrade + "; cat /etc/FULLVERSION").out,
            "reading the package\ninstalling\n2.0.0-next\n");
  EXPECT_TRUE(board.DaemonRunning());
  EXPECT_NE(board.DaemonPid(), before);
  board.OrderUpgrade("rate 10\nkill 1\nexit 3\n");
  EXPECT_EQ(board.Shell(upgrade).status, 3);
  EXPECT_EQ(board.AwaitDaemonEnd(), 128 + 9);
  EXPECT_EQ(board.UpgradeJournal().at(4).at("sha256"),
            "a665a45920422f9d417e4867efdc4fb8a04a1f3fff1fa07e998e86f7f7a27ae3");
}

}  // namespace
}  // namespace varnel::board

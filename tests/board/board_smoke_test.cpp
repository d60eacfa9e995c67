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

}  // namespace
}  // namespace varnel::board

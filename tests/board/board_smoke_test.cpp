// The virtual board itself, as far as the tests of the daemon would not notice.
#include <gmock/gmock.h>

#include <algorithm>

#include "support/temp_dir.h"
#include "virtual_board/client/board.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

BootOptions WithoutDaemon(CameraKind camera = CameraKind::kMipi) {
  BootOptions options;
  options.camera = camera;
  options.start_daemon = false;
  return options;
}

std::string RoundTrip(const Board& board, const std::string& text) {
  return board.Shell("mosquitto_pub -r -t smoke -m " + text + "; mosquitto_sub -t smoke -C 1 -W 5")
      .out;
}

TEST(BoardTest, OrphansAreBuried) {
  const Board board(WithoutDaemon());
  EXPECT_EQ(board.Shell("(sleep 0.05 &) ; true").status, 0);
  EXPECT_EQ(board.Shell("sleep 0.2").status, 0);
  const auto processes = board.Processes();
  EXPECT_EQ(processes.size(), 2U) << "the first process and the broker";
  const auto zombie = [](const ProcessInfo& process) { return process.state == 'Z'; };
  EXPECT_TRUE(std::none_of(processes.begin(), processes.end(), zombie));
}

TEST(BoardTest, ABoardThatCannotComeUpSaysSoAtOnce) {
  BootOptions options = WithoutDaemon();
  options.daemon = "/nowhere/varnel";
  EXPECT_THROW(Board{options}, std::runtime_error);
}

TEST(BoardTest, StandSideBySideAndGoWithoutATrace) {
  fs::path directory;
  {
    const Board mipi(WithoutDaemon());
    const Board usb(WithoutDaemon(CameraKind::kUsb));
    directory = usb.Paths().Root();
    EXPECT_EQ(RoundTrip(mipi, "first"), "first\n");
    EXPECT_EQ(usb.Shell("mosquitto_sub -t smoke -C 1 -W 1").out, "");
    EXPECT_EQ(usb.Exec({"varnel-grab", "/dev/video18", "/tmp/frame"}).out, "");
    EXPECT_TRUE(ReadFile(usb.HostPath("/tmp/frame")) == ReadFile(ChartFile("chart.yuyv")));
  }
  EXPECT_FALSE(fs::exists(directory));
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

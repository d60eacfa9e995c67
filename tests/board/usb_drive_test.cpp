// Drives come and go on a whole board: the daemon hears of them through the real libudev.
#include <gmock/gmock.h>

#include "board/run_inside.h"
#include "virtual_board/client/daemon_talk.h"

namespace varnel::board {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::Le;

constexpr const char* kMounted = "The device has been mounted to ";
constexpr const char* kTimeout = "Device mounting timeout";

class UsbDriveTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(board_.StartDaemon({"-v"}));
    ASSERT_TRUE(console_.AwaitText("Monitor task start", 30s));
  }

  void Usb(std::vector<std::string> words) const {
    words.insert(words.begin(), "varnel-usb");
    const ProgramResult result = board_.Exec(words);
    EXPECT_EQ(result.status, 0) << result.err;
  }
  bool MountedTo(const std::string& directory, std::chrono::milliseconds limit = 10s) const {
    return console_.AwaitText(kMounted + directory + "\n", limit);
  }
  /// Everything that was told before has been handled when this drive is found.
  void PlugLastDrive() const {
    Usb({"plug", "last", "--mount", "/mnt/last"});
    ASSERT_TRUE(MountedTo("/mnt/last")) << console_.Tail();
  }
  [[nodiscard]] size_t Events(const std::string& drive, const std::string& action) const {
    return console_.Count("Device event: node: /dev/" + drive + ", action: " + action + "\n");
  }
  [[nodiscard]] size_t Detections() const { return console_.Count("USB drive detected"); }
  [[nodiscard]] std::chrono::milliseconds Between(const std::string& from,
                                                  const std::string& to) const {
    const auto start = console_.TimeOf(from);
    const auto end = console_.TimeOf(to);
    if (!start || !end) throw std::runtime_error("no such lines: " + console_.Tail());
    return std::chrono::duration_cast<std::chrono::milliseconds>(*end - *start);
  }

  const Board board_{DaemonOptions()};
  const DaemonConsole console_{board_};
};

TEST_F(UsbDriveTest, AnInsertedDriveIsFoundOnceAndNothingElseCounts) {
  Usb({"plug"});
  Usb({"unplug"});
  Usb({"plug", "sdb", "--mount", "/mnt/my own\\stick"});
  Usb({"plug", "ssd", "--mount", "/mnt/internal", "--internal"});
  Usb({"plug", "sdc", "--mount", "/mnt/changed", "--actions", "change"});
  PlugLastDrive();
  EXPECT_EQ(Detections(), 3U);
  EXPECT_EQ(console_.Count(kMounted), 3U);
  EXPECT_TRUE(MountedTo("/mnt/udisk"));
  EXPECT_TRUE(MountedTo("/mnt/my own\\stick"));
  for (const char* action : {"add", "change", "remove"}) EXPECT_EQ(Events("sda", action), 1U);
  EXPECT_EQ(Events("ssd", "add"), 1U);
  EXPECT_EQ(Events("sdc", "change"), 1U);
}

TEST_F(UsbDriveTest, ADriveThatIsMountedLaterIsFoundAndOneThatNeverIsGivenUp) {
  Usb({"plug", "--mount-after", "2000"});
  ASSERT_TRUE(MountedTo("/mnt/udisk"));
  EXPECT_THAT(Between("USB drive detected: /dev/sda", kMounted), AllOf(Ge(1500ms), Le(4s)));
  Usb({"plug", "sdb", "--no-mount"});
  ASSERT_TRUE(console_.AwaitText(kTimeout, 10s));
  EXPECT_THAT(Between("USB drive detected: /dev/sdb", kTimeout), AllOf(Ge(4500ms), Le(7s)));
  PlugLastDrive();
  EXPECT_EQ(console_.Count(kTimeout), 1U);
}

}  // namespace
}  // namespace varnel::board

// The virtual board itself: its broker, its cameras and their faults, and two boards side by side.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <fstream>

#include "board/board.h"
#include "virtual_board/chart/chart.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

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

class BoardTest : public testing::Test {
 protected:
  /// What varnel-grab says, "" when it got its frame.
  std::string Grab(const std::string& device = "/dev/video11", int frames = 1) {
    return board_.Exec({"varnel-grab", device, "/tmp/frame", std::to_string(frames)}).out;
  }
  [[nodiscard]] std::string Frame() const { return ReadFile(board_.HostPath("/tmp/frame")); }
  std::string GrabWith(const std::string& faults) {
    board_.SetCameraFaults(faults);
    return Grab();
  }

  Board board_{WithoutDaemon()};
};

TEST_F(BoardTest, BrokerCarriesMessagesAndComesBackAfterItsDeath) {
  EXPECT_EQ(RoundTrip(board_, "one"), "one\n");
  ASSERT_TRUE(board_.KillBroker());
  EXPECT_FALSE(board_.KillBroker()) << "it does not run";
  EXPECT_EQ(RoundTrip(board_, "two"), "");
  ASSERT_TRUE(board_.StartBroker());
  EXPECT_FALSE(board_.StartBroker()) << "it runs already";
  EXPECT_EQ(RoundTrip(board_, "three"), "three\n");
  EXPECT_THAT(board_.SystemLog(), Not(HasSubstr("from the board")));
  EXPECT_EQ(board_.Shell("logger from the board").status, 0);
  EXPECT_THAT(board_.SystemLog(), HasSubstr("from the board"));
}

TEST_F(BoardTest, CamerasDeliverTheirRawFramesThroughLibv4l2) {
  EXPECT_EQ(Grab("/dev/video11"), "");
  EXPECT_TRUE(Frame() == ReadFile(ChartFile("chart.nv12")));
  EXPECT_EQ(Grab("/dev/video18"), "");
  EXPECT_TRUE(Frame() == ReadFile(ChartFile("chart.yuyv")));
  EXPECT_THAT(board_.CameraJournal(),
              AllOf(HasSubstr("open /dev/video11\nstream-on\nframe chart.nv12\n"
                              "stream-off\nclose /dev/video11\n")));
  EXPECT_NE(board_.Shell("i2cdetect -y 4 0x37 0x37").status, 0) << "no bus: a MIPI camera";
}

TEST_F(BoardTest, FramesFollowEachOtherByNameOverReopenedCameras) {
  const Image chart = DrawChart(7);
  const fs::path scratch = board_.HostPath("/tmp/scratch");
  fs::create_directory(scratch);
  std::vector<fs::path> files;
  for (const char* name : {"a.nv12", "b.nv12", "c.nv12"}) {
    std::string frame = ToNv12(chart);
    frame[0] = name[0];
    files.push_back(scratch / name);
    std::ofstream(files.back()) << frame;
  }
  std::ofstream(scratch / "ba.nv12") << "half copied";
  files.push_back(scratch / "ba.nv12");
  board_.ShowFrames(files);
  std::string seen;
  for (const int frames : {1, 1, 1, 1, 2}) {
    EXPECT_EQ(Grab("/dev/video11", frames), "");
    seen += Frame()[0];
  }
  EXPECT_EQ(seen, "abcac");
}

TEST_F(BoardTest, CameraFailsAsAskedAndRecovers) {
  const std::pair<const char*, const char*> cases[] = {
      {"unplug", "open: ENODEV\n"},
      {"stall", "timeout\n"},
      {"fail VIDIOC_QUERYCAP EIO 1 2", "VIDIOC_QUERYCAP: EIO\n"},
      {"fail VIDIOC_S_FMT 22", "VIDIOC_S_FMT: EINVAL\n"},
      {"fail VIDIOC_REQBUFS ENOMEM", "VIDIOC_REQBUFS: ENOMEM\n"},
      {"fail VIDIOC_QUERYBUF EIO 1 2", "VIDIOC_QUERYBUF: EIO\n"},
      {"fail mmap 1 1 2", "mmap: EINVAL\n"},
      {"fail VIDIOC_QBUF EIO", "VIDIOC_QBUF: EIO\n"},
      {"fail VIDIOC_STREAMON EIO", "VIDIOC_STREAMON: EIO\n"},
      {"fail VIDIOC_DQBUF ENODEV", "VIDIOC_DQBUF: ENODEV\n"},
      {"fail VIDIOC_STREAMOFF EIO", "VIDIOC_STREAMOFF: EIO\n"},
      {"error-buffer", "frame: EIO\n"},
      {"index 3", "index: ERANGE\n"},
      {"buffers 2", "buffers: ENOMEM\n"},
      {"no-capture", "capture: EOPNOTSUPP\n"},
      {"no-streaming", "streaming: EOPNOTSUPP\n"},
      {"# nothing\nnonsense 5\nfail VIDIOC_QBUF nonsense\n", ""},
  };
  for (const auto& [faults, outcome] : cases) EXPECT_EQ(GrabWith(faults), outcome) << faults;
  EXPECT_EQ(GrabWith("fail VIDIOC_QBUF EIO 2\nrate 100"), "VIDIOC_QBUF: EIO\n");
  EXPECT_EQ(board_.CameraFaults(), "fail VIDIOC_QBUF 5 1 0\nrate 100\n");
  EXPECT_EQ(Grab(), "VIDIOC_QBUF: EIO\n");
  EXPECT_EQ(board_.CameraFaults(), "rate 100\n");
  EXPECT_EQ(Grab(), "");
}

TEST_F(BoardTest, OneUserAtATimeHoldsTheCamerasBuffers) {
  board_.SetCameraFaults("rate 2");
  const auto both = board_.Shell(
      "varnel-grab /dev/video11 /tmp/first & sleep 0.2; varnel-grab /dev/video11 /tmp/second; "
      "wait");
  EXPECT_EQ(both.out, "VIDIOC_REQBUFS: EBUSY\n");
  EXPECT_TRUE(ReadFile(board_.HostPath("/tmp/first")) == ReadFile(ChartFile("chart.nv12")));
}

TEST_F(BoardTest, OrphansAreBuried) {
  EXPECT_EQ(board_.Shell("(sleep 0.05 &) ; true").status, 0);
  EXPECT_EQ(board_.Shell("sleep 0.2").status, 0);
  const auto processes = board_.Processes();
  EXPECT_EQ(processes.size(), 2U) << "the first process and the broker";
  const auto zombie = [](const ProcessInfo& process) { return process.state == 'Z'; };
  EXPECT_TRUE(std::none_of(processes.begin(), processes.end(), zombie));
}

TEST_F(BoardTest, FurtherServicesAreWatchedLikeTheOthers) {
  EXPECT_FALSE(board_.SignalService("cloud", SIGTERM));
  ASSERT_TRUE(board_.RunService("cloud", {"/usr/sbin/mosquitto", "-p", "1884"}));
  EXPECT_FALSE(board_.RunService("cloud", {"/bin/true"})) << "it runs already";
  ASSERT_TRUE(board_.SignalService("cloud", SIGKILL));
  EXPECT_EQ(board_.AwaitServiceEnd("cloud"), 128 + SIGKILL);
  ASSERT_TRUE(board_.RunService("cloud", {"/bin/sh", "-c", "exit 4"}));
  EXPECT_EQ(board_.AwaitServiceEnd("cloud"), 4);
  ASSERT_TRUE(board_.RunService("cloud", {"/nowhere"}));
  EXPECT_EQ(board_.AwaitServiceEnd("cloud"), 127);
}

TEST(BoardsTest, ABoardThatCannotComeUpSaysSoAtOnce) {
  BootOptions options = WithoutDaemon();
  options.daemon = "/nowhere/varnel";
  EXPECT_THROW(Board{options}, std::runtime_error);
}

TEST(BoardsTest, StandSideBySideAndGoWithoutATrace) {
  fs::path directory;
  {
    const Board mipi(WithoutDaemon());
    const Board usb(WithoutDaemon(CameraKind::kUsb));
    directory = usb.Paths().Root();
    EXPECT_EQ(RoundTrip(mipi, "first"), "first\n");
    EXPECT_EQ(usb.Shell("mosquitto_sub -t smoke -C 1 -W 1").out, "");
    EXPECT_EQ(RoundTrip(usb, "second"), "second\n");
    const auto probe = usb.Shell("i2cdetect -y 4 0x37 0x37");
    EXPECT_EQ(probe.status, 0);
    EXPECT_THAT(probe.out, AllOf(HasSubstr("37"), Not(HasSubstr("UU"))));
    const auto network =
        usb.OnNetwork({"mosquitto_sub", "-h", "127.0.0.1", "-t", "smoke", "-C", "1", "-W", "5"});
    EXPECT_EQ(RunProgram(network).out, "second\n");
  }
  EXPECT_FALSE(fs::exists(directory));
}

TEST(BoardsTest, ABoardKeepsWhoItIs) {
  BootOptions options = WithoutDaemon();
  std::string name = (fs::temp_directory_path() / "varnel-identity-XXXXXX").string();
  ASSERT_NE(::mkdtemp(name.data()), nullptr);
  options.directory = name;
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
  fs::remove_all(name);
}

/// A stand-in for the daemon: a shell that does what its second argument says.
TEST(BoardServiceTest, DaemonsEndIsToldExactly) {
  BootOptions options = WithoutDaemon();
  options.daemon = "/bin/sh";
  const Board board(options);
  EXPECT_EQ(board.DaemonPid(), 0);
  ASSERT_TRUE(board.StartDaemon({"-c", "exit 3"}));
  EXPECT_EQ(board.AwaitDaemonEnd(), 3);
  ASSERT_TRUE(board.StartDaemon({"-c", "echo ready; sleep 60"}));
  EXPECT_EQ(board.AwaitDaemonEnd(std::chrono::milliseconds(20)), std::nullopt);
  EXPECT_EQ(board.DaemonCounters().threads, 1);
  EXPECT_GE(board.DaemonCounters().descriptors, 3);
  ASSERT_TRUE(board.SignalDaemon(SIGSEGV));
  EXPECT_EQ(board.AwaitDaemonEnd(), 128 + SIGSEGV);
  EXPECT_FALSE(board.DaemonRunning());
  EXPECT_THAT(ReadFile(board.Paths().Log() / "daemon.log"), HasSubstr("ready"));
}

}  // namespace
}  // namespace varnel::board

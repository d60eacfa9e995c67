// Photos over the broker: what is in them, where they may go, and what becomes of the file that was
// there.
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "board/run_inside.h"
#include "board/served_board.h"
#include "virtual_board/chart/image.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::Each;
using testing::HasSubstr;
using testing::Lt;

constexpr size_t kNv12Bytes = size_t{1920} * 1080 * 3 / 2;

BootOptions With(CameraKind camera) {
  BootOptions options = DaemonOptions();
  options.camera = camera;
  return options;
}

/// Three boards for all tests: their daemons take seconds to warm up their cameras.
struct Boards {
  ServedBoard mipi{With(CameraKind::kMipi)};
  ServedBoard usb{With(CameraKind::kUsb)};
  ServedBoard narrow{
      With(CameraKind::kMipi),
      WithDeployment(
          R"({"min_free_space_mib": 1, "client_write_directories": ["/userdata/allowed", "/mnt", "/home"]})")};
};

class CameraPhotoTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    boards = std::make_unique<Boards>();
    for (ServedBoard* board : {&boards->mipi, &boards->usb, &boards->narrow})
      ASSERT_TRUE(board->rpc.AwaitDaemon());
  }
  static void TearDownTestSuite() { boards.reset(); }

  static std::unique_ptr<Boards> boards;
};
std::unique_ptr<Boards> CameraPhotoTest::boards;

/// Mean error per channel against the chart, of a picture that ffmpeg can read; an error of 255
/// otherwise.
std::array<double, 3> ErrorAgainstChart(const ServedBoard& board, const std::string& inside) {
  const fs::path scratch = board.board.Paths().Root() / "picture";
  const fs::path decoded = scratch.string() + ".ppm";
  fs::copy_file(board.board.HostPath(inside), scratch, fs::copy_options::overwrite_existing);
  const auto ffmpeg = RunProgram({"ffmpeg", "-y", "-v", "error", "-i", scratch.string(), "-pix_fmt",
                                  "rgb24", decoded.string()});
  const auto picture = ffmpeg.status == 0 ? ReadPpm(decoded) : std::nullopt;
  const auto error = picture ? MeanError(*picture, *ReadPpm(ChartFile("chart.ppm"))) : std::nullopt;
  return error.value_or(std::array<double, 3>{255, 255, 255});
}

void ExpectAllFormats(ServedBoard& board, const std::string& raw_frame) {
  const std::string call = R"({"jsonrpc":"2.0","id":7,"method":"camera.take_a_photo",)"
                           R"("params":{"reason":"debug","filepath":"/userdata/p.jpg"}})";
  const auto answer = board.board.Exec(
      {"mosquitto_rr", "-t", "camera/request", "-e", "camera/response", "-W", "30", "-m", call});
  EXPECT_EQ(json::parse(answer.out, nullptr, false),
            json::parse(R"({"jsonrpc":"2.0","id":7,"result":{"state":"success"}})"));
  for (const char* path : {"/userdata/p.jpeg", "/userdata/p.png"}) {
    EXPECT_EQ(board.Photo(path), Success());
  }
  for (const char* path : {"/userdata/p.jpg", "/userdata/p.jpeg", "/userdata/p.png"}) {
    EXPECT_THAT(ErrorAgainstChart(board, path), Each(Lt(4.0))) << path;
  }
  EXPECT_TRUE(IsWholePng(board.File("/userdata/p.png")));
  for (const char* path : {"/userdata/p.nv12", "/userdata/p.JPG", "/userdata/p"}) {
    EXPECT_EQ(board.Photo(path), Success());
    EXPECT_TRUE(board.File(path) == raw_frame) << path;
  }
}

TEST_F(CameraPhotoTest, TheEndingChoosesTheFormatOfBothCameras) {
  ExpectAllFormats(boards->mipi, ReadFile(ChartFile("chart.nv12")));
  ExpectAllFormats(boards->usb, ReadFile(ChartFile("chart.yuyv")));
  EXPECT_EQ(boards->usb.rpc.Call("camera.get_status", nullptr).at("result").at("interface_type"),
            "MIPI");
}

TEST_F(CameraPhotoTest, ANameMadeTooLongIsRefusedAndNoPathSavesNothing) {
  ServedBoard& board = boards->mipi;
  EXPECT_EQ(board.Photo("/userdata/" + std::string(245, 'n') + ".jpg", 1),
            Error(-32600, "Invalid Request"));

  const std::string files = board.board.Shell("find / -type f -not -path '/proc/*' | sort").out;
  EXPECT_EQ(board.Photo(""), Success());
  EXPECT_EQ(board.Photo("", 1735689600), Success());
  EXPECT_EQ(board.board.Shell("find / -type f -not -path '/proc/*' | sort").out, files);
}

TEST_F(CameraPhotoTest, OtherPathsAreRefusedAndNothingIsWritten) {
  ServedBoard& board = boards->mipi;
  const auto made = board.board.Shell(
      "cd /userdata && mkdir -p dir.jpg real gcodes/calibration_data .tmp_upgrade && "
      "(cd /home/ruxo/printer_data && mkdir -p gcodes database mqtt camera certs) && mkfifo "
      "fifo.jpg && ln -s /etc to_etc && "
      "ln -s /etc/passwd link.jpg && ln -s /nowhere dangling.jpg && ln -s real to_real && "
      "touch /run/before");
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string refused[] = {"-x.jpg",
                                 "/userdata/to_etc/x.jpg",
                                 "/userdata/to_etc/varnel/deployment.json",
                                 "/userdata/link.jpg",
                                 "/userdata/dangling.jpg",
                                 "/tmp/.serial_number",
                                 "/tmp/.capture.bin",
                                 "/home/ruxo/printer_data/logs/varnel.log",
                                 "/home/ruxo/printer_data/logs/x.jpg",
                                 "/home/ruxo/printer_data/gcodes/x.jpg",
                                 "/home/ruxo/printer_data/database/x.jpg",
                                 "/userdata/gcodes/calibration_data/x.jpg",
                                 "/userdata/.tmp_upgrade/x.jpg",
                                 "/tmp/.upgrade-abcdef",
                                 "/userdata/dir.jpg",
                                 "/userdata/fifo.jpg",
                                 "/run/x.jpg",
                                 std::string("/userdata/a\0.jpg", 16)};
  for (const std::string& path : refused) {
    EXPECT_EQ(board.Photo(path), Error(-32600, "Invalid Request")) << path;
  }
  EXPECT_EQ(
      board.board.Shell("find / -newer /run/before -not -path '/proc/*' -not -name varnel.log").out,
      "");
  EXPECT_EQ(board.Photo("/userdata/to_real/../to_real/x.jpg"), Success());
  EXPECT_TRUE(IsWholeJpeg(board.File("/userdata/real/x.jpg")));
}

TEST_F(CameraPhotoTest, AnyNameThatAFileCanHaveWillDo) {
  ServedBoard& board = boards->mipi;
  fs::create_directories(board.board.HostPath("/userdata/%d' -y"));
  const std::string emoji = "\xF0\x9F\x93\xB7";
  const std::string names[] = {
      "100%d.jpg", "-y.jpg", "$(reboot)`'\";&|.jpg",         emoji + ".jpg",
      "a b:c.jpg", ".jpg",   std::string(251, 'n') + ".jpg", "%d' -y/%s.jpg"};
  for (const std::string& name : names) {
    EXPECT_EQ(board.Photo("/userdata/" + name), Success()) << name;
    EXPECT_TRUE(IsWholeJpeg(board.File("/userdata/" + name))) << name;
  }
  const std::string long_ending = "/userdata/a." + std::string(250, 'n');
  EXPECT_EQ(board.Photo(long_ending), Success());
  EXPECT_EQ(board.File(long_ending).size(), kNv12Bytes);
}

/// Compresses badly: its picture is larger than a small disk.
std::string NoiseFrame() {
  std::mt19937 random(1);
  std::string frame(kNv12Bytes, '\0');
  std::generate(frame.begin(), frame.end(), [&] { return static_cast<char>(random()); });
  return frame;
}

TEST_F(CameraPhotoTest, AFullDiskKeepsTheOldFileAndTheMakersListNarrows) {
  ServedBoard& board = boards->narrow;
  const auto mounted = board.board.Shell(
      "mkdir -p /userdata/allowed /mnt/low /mnt/full; mount -t tmpfs -o size=512k low /mnt/low && "
      "mount -t tmpfs -o size=2m full /mnt/full && for d in low full; do for e in jpg png nv12; do "
      "echo old > /mnt/$d/old.$e; done; done");
  ASSERT_EQ(mounted.status, 0) << mounted.err;
  const fs::path noise = board.board.Paths().Root() / "noise.nv12";
  std::ofstream(noise) << NoiseFrame();
  board.board.ShowFrames({noise});

  ASSERT_EQ(
      board.board.Shell("cd /home/ruxo/printer_data && mkdir -p database mqtt camera certs").status,
      0);
  const std::string data = "/home/ruxo/printer_data/";
  for (const std::string& path :
       {std::string("/mnt/low/old.jpg"), std::string("/mnt/low/old.png"),
        std::string("/mnt/low/old.nv12"), std::string("/mnt/full/old.nv12"),
        std::string("/mnt/full/old.png"), std::string("/userdata/x.jpg"), std::string("/tmp/x.jpg"),
        data + "database/x.jpg", data + "mqtt/x.jpg", data + "camera/x.jpg", data + "certs/x.jpg",
        data + "varnel/x.jpg"}) {
    EXPECT_EQ(board.Photo(path), Error(-32600, "Invalid Request")) << path;
  }
  EXPECT_EQ(board.board.Shell("cat /mnt/*/old.*; ls -A /mnt/low /mnt/full | grep -v old").out,
            "old\nold\nold\nold\nold\nold\n/mnt/full:\n\n/mnt/low:\n");
  EXPECT_EQ(board.Photo("/userdata/allowed/x.png"), Success());
  EXPECT_TRUE(IsWholePng(board.File("/userdata/allowed/x.png")));

  const std::string log = board.StopAndReadLog();
  EXPECT_THAT(log, HasSubstr("Less than 1 MiB free in /mnt/low, nothing is written there"));
  EXPECT_THAT(log, HasSubstr("filesystem error: No space left on device"));
}

}  // namespace
}  // namespace varnel::board

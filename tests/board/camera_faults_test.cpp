// A camera and a converter that fail in every way they can: each failure is one answered error, and
// the next photo works.
#include <gmock/gmock.h>

#include <array>

#include "board/run_inside.h"
#include "board/served_board.h"
#include "support/temp_dir.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr const char* kRealFfmpeg = "exec /opt/varnel/ffmpeg \"$@\"";

/// The stand-in for ffmpeg is one bound file, so it is changed in place.
class Ffmpeg {
 public:
  [[nodiscard]] const fs::path& File() const { return file_; }
  void Become(const char* script) const { directory_.WriteScript("ffmpeg", script); }

 private:
  const test::TempDir directory_;
  const fs::path file_ = directory_.WriteScript("ffmpeg", kRealFfmpeg);
};

BootOptions WithStandIn(const Ffmpeg& ffmpeg) {
  BootOptions options = DaemonOptions();
  options.binds.emplace_back(ffmpeg.File(), "/usr/bin/ffmpeg");
  options.binds.emplace_back("/usr/bin/ffmpeg", "/opt/varnel/ffmpeg");
  return options;
}

class CameraFaultsTest : public testing::Test {
 protected:
  struct Shared {
    Ffmpeg ffmpeg;
    ServedBoard board{WithStandIn(ffmpeg)};
  };
  static void SetUpTestSuite() {
    shared = std::make_unique<Shared>();
    ASSERT_TRUE(shared->board.rpc.AwaitDaemon());
    ExpectHealthy();
    descriptors = board().DaemonCounters().descriptors;
  }
  static void TearDownTestSuite() { shared.reset(); }
  void TearDown() override {
    ExpectHealthy();
    EXPECT_EQ(board().DaemonCounters().descriptors, descriptors);
  }

  static ServedBoard& served() { return shared->board; }
  static const Board& board() { return shared->board.board; }
  static const Ffmpeg& ffmpeg() { return shared->ffmpeg; }

  static void ExpectHealthy() {
    board().SetCameraFaults("rate 200");
    ffmpeg().Become(kRealFfmpeg);
    const fs::path file = board().HostPath("/userdata/well.jpg");
    fs::remove(file);
    fs::remove(board().HostPath("/userdata/never.nv12"));
    EXPECT_EQ(served().Photo("/userdata/well.jpg"), Success());
    EXPECT_TRUE(IsWholeJpeg(ReadFile(file)));
  }
  /// One photo under these faults.
  static json PhotoUnder(const std::string& faults) {
    board().SetCameraFaults(faults + "\nrate 200\n");
    return served().Photo("/userdata/never.nv12");
  }
  static void ExpectNoFile() {
    EXPECT_EQ(board().Shell("ls -A /userdata | grep -e never -e varnel-").out, "");
  }

  static std::unique_ptr<Shared> shared;
  static long descriptors;  ///< of the daemon that nothing has happened to
};
std::unique_ptr<CameraFaultsTest::Shared> CameraFaultsTest::shared;
long CameraFaultsTest::descriptors = 0;

const json kFailed = Error(-32000, "Take photo failed");

TEST_F(CameraFaultsTest, EachFailingCallFailsOnePhoto) {
  const char* faults[] = {"stall",
                          "fail VIDIOC_STREAMON EIO 1",
                          "fail VIDIOC_STREAMON ENOMEM 1",
                          "fail VIDIOC_STREAMOFF EIO 1",
                          "fail VIDIOC_DQBUF EIO 1",
                          "fail VIDIOC_DQBUF EINVAL 1",
                          "fail VIDIOC_QBUF EIO 3",
                          "error-buffer",
                          "error-buffer 3110400",
                          "fail VIDIOC_DQBUF EAGAIN 0",
                          "fail VIDIOC_STREAMON ENODEV 1",
                          "fail VIDIOC_DQBUF ENODEV 1",
                          "fail VIDIOC_STREAMOFF ENODEV 1"};
  for (const char* fault : faults) {
    EXPECT_EQ(PhotoUnder(fault), kFailed) << fault;
    ExpectNoFile();
    ExpectHealthy();
  }
  EXPECT_EQ(
      PhotoUnder("fail VIDIOC_DQBUF EAGAIN 3\nfail VIDIOC_STREAMON EINTR 3\nfail frame EIO 2"),
      Success());
  ffmpeg().Become("exit 1");
  EXPECT_EQ(served().Photo("/userdata/never.jpg"), kFailed);
}

TEST_F(CameraFaultsTest, ALostCameraIsOpenedAgainWhateverTheOpeningMeets) {
  const char* openings[] = {"unplug",
                            "fail VIDIOC_QUERYCAP EIO 1 1",
                            "fail VIDIOC_S_FMT EBUSY 1",
                            "fail VIDIOC_REQBUFS ENOMEM 1",
                            "fail VIDIOC_QUERYBUF EIO 1",
                            "fail VIDIOC_QUERYBUF EIO 3",
                            "fail mmap ENOMEM 1",
                            "buffers 2",
                            "size 1280 720",
                            "no-capture",
                            "no-streaming"};
  for (const char* opening : openings) {
    EXPECT_EQ(PhotoUnder("fail VIDIOC_DQBUF ENODEV 1"), kFailed);
    EXPECT_THAT(board().CameraJournal(), EndsWith("close /dev/video11\n")) << "let go at once";
    EXPECT_EQ(PhotoUnder(opening), kFailed) << opening;
    ExpectNoFile();
    ExpectHealthy();
    EXPECT_THAT(board().CameraJournal(), HasSubstr("close /dev/video11\nopen /dev/video11\n"));
  }
}

/// As sensor pipelines do; libv4l2 would convert.
TEST_F(CameraFaultsTest, ACameraThatListsNv12AloneGivesNv12) {
  EXPECT_EQ(PhotoUnder("fail VIDIOC_DQBUF ENODEV 1"), kFailed);
  const size_t before = board().CameraJournal().size();
  EXPECT_EQ(PhotoUnder("formats 1"), Success());
  EXPECT_EQ(ReadFile(board().HostPath("/userdata/never.nv12")), ReadFile(ChartFile("chart.nv12")));
  const std::string opened = board().CameraJournal().substr(before);
  size_t frames = 0;
  for (size_t at = 0; (at = opened.find("stream-on", at)) != std::string::npos; ++at) ++frames;
  EXPECT_EQ(frames, 11U) << "ten for its exposure";
}

TEST_F(CameraFaultsTest, NothingOfAnotherKindStandsBehindPhotosAndDetections) {
  board().SetCameraFaults("rate 10");
  std::array<json, 16> photos;
  for (json& id : photos) id = served().PostPhoto("/userdata/never.nv12");
  std::array<json, 5> detections;
  for (json& id : detections) id = served().rpc.Post("camera.detect_capture", nullptr);
  for (const char* method : {"camera.get_status", "camera.get_timelapse_instance",
                             "camera.upload_timelapse_instance", "camera.stop_timelapse"}) {
    const auto id = served().rpc.Post(method, json::object());
    EXPECT_FALSE(served().rpc.Await(id, 1s).is_null()) << method;
  }
  EXPECT_TRUE(served().rpc.Await(photos.back(), 0s).is_null()) << "they all went ahead of it";
  for (const json& id : photos) EXPECT_FALSE(served().rpc.Await(id).is_null());
  for (const json& id : detections) EXPECT_FALSE(served().rpc.Await(id).is_null());
}

/// The first photo's converter hangs until its time limit of 30 s; the others wait for 10 s.
TEST_F(CameraFaultsTest, AHangingConverterIsKilledAndNobodyWaitsLongForIt) {
  const size_t processes = board().Processes().size();
  ffmpeg().Become("sleep 600 & sleep 600");
  const auto start = std::chrono::steady_clock::now();
  const json first = served().PostPhoto("/userdata/never.jpg");
  while (board().Shell("pidof sleep").status != 0) {
  }
  const json second = served().PostPhoto("/userdata/never.nv12");
  EXPECT_EQ(served().rpc.Await(second, 20s), kFailed);
  EXPECT_EQ(served().rpc.Await(first, 40s), kFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 35s);
  ExpectNoFile();
  ExpectHealthy();
  EXPECT_EQ(board().Processes().size(), processes);
}

TEST_F(CameraFaultsTest, ACameraThatIsMissingAtTheStartServesOnceItIsThere) {
  const std::string log = served().StopAndReadLog();
  EXPECT_THAT(log, HasSubstr("The camera is still busy after 10s, no photo is taken"));
  EXPECT_THAT(log, HasSubstr("Insufficient buffer memory"));
  board().SetCameraFaults("unplug");
  ASSERT_TRUE(board().StartDaemon());
  ASSERT_TRUE(served().rpc.AwaitDaemon());
  EXPECT_EQ(served().Photo("/userdata/never.jpg"), kFailed);
  EXPECT_EQ(served().Photo(""), kFailed);
}

}  // namespace
}  // namespace varnel::board

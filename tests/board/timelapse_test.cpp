// A print becomes a film: over the broker, with the real encoder.
#include <gmock/gmock.h>
#include <signal.h>

#include <random>

#include "board/daemon_talk.h"
#include "board/served_board.h"
#include "support/eventually.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::IsEmpty;

constexpr int kPhotos = 24;

class TimelapseTest : public testing::Test {
 protected:
  static std::unique_ptr<ServedBoard> NewBoard(CameraKind camera) {
    BootOptions options = DaemonOptions();
    options.camera = camera;
    auto served = std::make_unique<ServedBoard>(options);
    EXPECT_TRUE(served->rpc.AwaitDaemon());
    return served;
  }
  static json Start(ServedBoard& served, const char* type) {
    return served.rpc.Call("camera.start_timelapse",
                           {{"type", type},
                            {"mode", "classic"},
                            {"frame_rate", 24},
                            {"gcode_name", "it's \"b\"\n😀/../" + std::string(300, 'n')}});
  }
  static json Print(ServedBoard& served) {
    return served.rpc.Call("camera.take_a_photo", {{"reason", "printing"}});
  }
  static json Films(ServedBoard& served, const json& params = nullptr) {
    return served.rpc.Call("camera.get_timelapse_instance", params)["result"]["instances"];
  }
  /// The one film once it is listed.
  static json AwaitFilm(ServedBoard& served) {
    json films;
    EXPECT_TRUE(test::Eventually(
        [&] {
          films = Films(served);
          return films.size() == 1;
        },
        std::chrono::seconds(60)));
    return films.empty() ? json() : films[0];
  }
  /// What ffprobe tells of a film of the board.
  static std::string Probe(const ServedBoard& served, const std::string& inside) {
    return served.board
        .Exec({"ffprobe", "-v", "error", "-count_frames", "-show_entries",
               "stream=profile,width,height,pix_fmt,r_frame_rate,nb_read_frames", "-of",
               "compact=p=0", inside})
        .out;
  }
  static std::string WebFile(const json& film, const char* key) {
    const std::string url = film.at(key);
    return "/home/ruxo/printer_data/camera/" + url.substr(url.rfind('/') + 1);
  }
};

TEST_F(TimelapseTest, APrintBecomesAFilmThatPlaysAndLeavesNoTraceWhenDeleted) {
  for (const CameraKind camera : {CameraKind::kMipi, CameraKind::kUsb}) {
    const auto served = NewBoard(camera);
    EXPECT_EQ(Start(*served, "new"), Success());
    for (int i = 0; i < kPhotos; ++i) EXPECT_EQ(Print(*served), Success());
    EXPECT_EQ(served->rpc.Call("camera.stop_timelapse", nullptr), Success());
    const json film = AwaitFilm(*served);
    ASSERT_FALSE(film.is_null());
    EXPECT_EQ(
        Probe(*served, WebFile(film, "video_url")),
        "profile=High|width=1920|height=1080|pix_fmt=yuv420p|r_frame_rate=24/1|nb_read_frames=" +
            std::to_string(kPhotos + 1) + "\n");
    const json direct = Films(*served, {{"thumbnail_direct", true}})[0];
    EXPECT_TRUE(
        direct["thumbnail_base64"].get<std::string>().starts_with("data:image/jpeg;base64,/9j/"));
    EXPECT_EQ(served->board.Exec({"test", "-s", WebFile(film, "thumbnail_path")}).status, 0);
    EXPECT_TRUE(test::Eventually([&] {
      return served->rpc.Call("camera.get_status", nullptr)["result"]["timelapse"] == false;
    }));
    EXPECT_EQ(
        served->rpc.Call("camera.delete_timelapse_instance", {{"date_index", film["date_index"]}}),
        Success());
    EXPECT_EQ(served->board
                  .Shell("ls -d /userdata/.tmp_timelapse/[0-9]* "
                         "/home/ruxo/printer_data/camera/*")
                  .out,
              "");
    EXPECT_THAT(served->rpc.Problems(), IsEmpty());
  }
}

TEST_F(TimelapseTest, ADaemonThatIsKilledAtAnyMomentLosesNoPhoto) {
  constexpr unsigned kKills = 6;
  std::mt19937 random(20261122);
  const auto served = NewBoard(CameraKind::kMipi);
  ASSERT_EQ(Start(*served, "new"), Success());
  int photos = 0;
  for (unsigned kill = 0; kill < kKills; ++kill) {
    for (unsigned i = random() % 4; i-- > 0; ++photos) ASSERT_EQ(Print(*served), Success());
    const json last = served->rpc.Post("camera.take_a_photo", {{"reason", "printing"}});
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 400));
    ASSERT_TRUE(served->board.SignalDaemon(SIGKILL));
    EXPECT_EQ(served->board.AwaitDaemonEnd(), 128 + SIGKILL);
    ASSERT_TRUE(served->board.StartDaemon());
    ASSERT_TRUE(served->rpc.AwaitDaemon());
    ASSERT_EQ(Start(*served, "continue"), Success());
  }
  ASSERT_EQ(Print(*served), Success());
  ++photos;
  ASSERT_EQ(served->rpc.Call("camera.stop_timelapse", nullptr), Success());
  ASSERT_TRUE(served->board.SignalDaemon(SIGKILL)) << "while the film is made";
  EXPECT_EQ(served->board.AwaitDaemonEnd(), 128 + SIGKILL);
  ASSERT_TRUE(served->board.StartDaemon());
  ASSERT_TRUE(served->rpc.AwaitDaemon());
  const json film = AwaitFilm(*served);
  ASSERT_FALSE(film.is_null());
  const std::string probed = Probe(*served, WebFile(film, "video_url"));
  const int frames = std::stoi(probed.substr(probed.rfind('=') + 1));
  EXPECT_GE(frames, photos + 1) << "each answered photo and the cover";
  EXPECT_LE(frames, photos + 1 + int{kKills}) << "and those whose answer was not awaited";
  EXPECT_EQ(served->board
                .Shell("ls -A /userdata/.tmp_timelapse | grep -v -x -e '[0-9]*' -e .lock "
                       "-e current -e index_next -e timelapse.json")
                .out,
            "");
}

}  // namespace
}  // namespace varnel::board

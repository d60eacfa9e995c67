// A print becomes a film: over the broker, with the real encoder.
#include <gmock/gmock.h>
#include <signal.h>

#include <fmt/format.h>

#include <cstdlib>
#include <list>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "board/run_inside.h"
#include "board/scenes.h"
#include "board/served_board.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "virtual_board/client/daemon_talk.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::IsEmpty;

constexpr int kPhotos = 120;

class TimelapseTest : public testing::Test {
 public:
  /// @param bad_encoder it does what Fault() says
  std::unique_ptr<ServedBoard> NewBoard(CameraKind camera, bool bad_encoder = false) const {
    BootOptions options = DaemonOptions();
    options.camera = camera;
    if (bad_encoder) {
      options.binds = {{"/usr/bin/ffmpeg", "/opt/varnel/ffmpeg"},
                       {bad_ffmpeg_.string(), "/usr/bin/ffmpeg"}};
    }
    auto served = std::make_unique<ServedBoard>(options);
    EXPECT_TRUE(served->rpc.AwaitDaemon());
    return served;
  }
  /// "play": joins and checks run at the speed at which the film plays. Any other word: the next
  /// run with it in its command line is killed.
  static void Fault(const ServedBoard& served, const std::string& word) {
    (void)served.board.Shell("mkdir -p /tmp/fault; touch /tmp/fault/" + word);
  }
  static json Start(ServedBoard& served, const char* type, int frame_rate = 24) {
    return served.rpc.Call("camera.start_timelapse",
                           {{"type", type},
                            {"mode", "classic"},
                            {"frame_rate", frame_rate},
                            {"gcode_name", "it's \"b\"\n😀/../" + std::string(300, 'n')}});
  }
  static json Print(ServedBoard& served) {
    return served.rpc.Call("camera.take_a_photo", {{"reason", "printing"}});
  }
  static json Films(ServedBoard& served, const json& params = nullptr) {
    return served.rpc.Call("camera.get_timelapse_instance", params)["result"]["instances"];
  }
  /// The oldest film once so many are listed.
  static json AwaitFilm(ServedBoard& served, size_t count = 1) {
    json films;
    EXPECT_TRUE(test::Eventually(
        [&] {
          films = Films(served);
          return films.size() == count;
        },
        std::chrono::seconds(180)));
    return films.size() == count ? films.back() : json();
  }
  /// A print of one photo, and its stop.
  static void PrintOne(ServedBoard& served) {
    EXPECT_EQ(Start(served, "new"), Success());
    EXPECT_EQ(Print(served), Success());
    EXPECT_EQ(served.rpc.Call("camera.stop_timelapse", nullptr), Success());
  }
  static bool AwaitCompleted(const ServedBoard& served, size_t count, const char* state) {
    std::vector<RpcCaller::Notification> told;
    return test::Eventually(
               [&] {
                 told = served.rpc.Notifications("notify_camera_generate_video_completed");
                 return told.size() >= count;
               },
               std::chrono::seconds(180)) &&
           told[count - 1].params.at("state") == state;
  }
  /// What ffprobe tells of a film of the board, as a JSON object.
  static json Probe(const ServedBoard& served, const std::string& inside) {
    const std::string told =
        served.board
            .Exec({"ffprobe", "-v", "error", "-count_frames", "-show_entries",
                   "stream=profile,width,height,pix_fmt,r_frame_rate,nb_read_frames,duration",
                   "-of", "json", inside})
            .out;
    const json all = json::parse(told, nullptr, false);
    if (!all.is_object()) return told;
    return all.at("streams").at(0);
  }
  static void ExpectFilm(const json& probed, int frames, double frame_rate) {
    const double duration = std::stod(probed.value("duration", "0"));
    EXPECT_NEAR(duration, frames / frame_rate, 0.001 * frames / frame_rate);
    json rest = probed;
    rest.erase("duration");
    EXPECT_EQ(rest, json({{"profile", "High"},
                          {"width", 1920},
                          {"height", 1080},
                          {"pix_fmt", "yuv420p"},
                          {"r_frame_rate", fmt::format("{}/1", frame_rate)},
                          {"nb_read_frames", std::to_string(frames)}}));
  }
  /// A long joining run tells how far it is.
  static void ExpectProgress(const ServedBoard& served) {
    const auto told = served.rpc.Notifications("notify_camera_generate_video_progress");
    EXPECT_GE(told.size(), 3U);
    for (size_t i = 0; i < told.size(); ++i) {
      const int percent = told[i].params.at("percent");
      EXPECT_GE(percent, i == 0 ? 0 : told[i - 1].params.at("percent").get<int>());
      EXPECT_LE(percent, 80);
      if (i == 0) continue;
      EXPECT_NEAR(std::chrono::duration<double>(told[i].time - told[i - 1].time).count(), 2, 0.7);
    }
  }
  static std::string WebFile(const json& film, const char* key) {
    const std::string url = film.at(key);
    return "/home/ruxo/printer_data/camera/" + url.substr(url.rfind('/') + 1);
  }

 private:
  const test::TempDir programs_;
  const fs::path bad_ffmpeg_ = programs_.WriteScript("ffmpeg", R"(
case $* in
  *rawvideo*) ;;
  *) echo 'rga_api version 1.9'; echo 'mpp[1]: mpp_info: version' >&2 ;;
esac
for word in $(ls /tmp/fault 2>/dev/null); do
  case "$word $*" in
    play*" concat "*|play*" null "*) exec /opt/varnel/ffmpeg -re "$@" ;;
    play*) ;;
    *" "*"$word"*) rm "/tmp/fault/$word"; kill -9 $$ ;;
  esac
done
exec /opt/varnel/ffmpeg "$@")");
};

TEST_F(TimelapseTest, APrintBecomesAFilmThatPlaysAndLeavesNoTraceWhenDeleted) {
  for (const CameraKind camera : {CameraKind::kMipi, CameraKind::kUsb}) {
    const bool slow_join = camera == CameraKind::kUsb;
    const int frame_rate = slow_join ? 15 : 24;
    const auto served = NewBoard(camera, slow_join);
    if (slow_join) Fault(*served, "play");
    const CodedScene scene(served->board);
    EXPECT_EQ(Start(*served, "new", frame_rate), Success());
    const size_t answers_at_start = served->rpc.Answers().size();
    std::vector<unsigned> expected = {kPhotos};  // the cover is the last photo
    for (unsigned i = 1; i <= kPhotos; ++i) {
      scene.Show(i);
      ASSERT_EQ(Print(*served), Success());
      expected.push_back(i);
    }
    EXPECT_EQ(served->rpc.Call("camera.stop_timelapse", nullptr), Success());
    const size_t answers_at_stop = served->rpc.Answers().size();
    const json film = AwaitFilm(*served);
    ASSERT_FALSE(film.is_null());
    const std::string video = WebFile(film, "video_url");
    ExpectFilm(Probe(*served, video), kPhotos + 1, frame_rate);
    EXPECT_EQ(NumbersIn(served->board, video), expected);
    if (slow_join) ExpectProgress(*served);
    EXPECT_TRUE(AwaitCompleted(*served, 1, "success"));
    const auto changes = served->rpc.Notifications("notify_camera_status_change");
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_GE(changes[0].answers, answers_at_start) << "its own answer comes first";
    EXPECT_GE(changes[1].answers, answers_at_stop);
    // Its record is lost.
    (void)served->board.Shell("echo lost >/userdata/.tmp_timelapse/timelapse.json");
    served->Restart();
    EXPECT_EQ(AwaitFilm(*served)["video_url"], film["video_url"]);
    EXPECT_EQ(served->rpc.Notifications("notify_camera_generate_video_completed").size(), 1U);
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

TEST_F(TimelapseTest, AFilmThatFailedIsMadeAfterADeletionAndAfterARestart) {
  const auto served = NewBoard(CameraKind::kMipi, true);
  PrintOne(*served);
  const json first = AwaitFilm(*served);
  ASSERT_FALSE(first.is_null());
  Fault(*served, "thumbnail.jpg");
  PrintOne(*served);
  EXPECT_TRUE(AwaitCompleted(*served, 2, "failed"));
  EXPECT_EQ(served->rpc.Call("camera.get_status", nullptr)["result"]["timelapse"], true);
  EXPECT_EQ(
      served->rpc.Call("camera.delete_timelapse_instance", {{"date_index", first["date_index"]}}),
      Success());
  EXPECT_TRUE(AwaitCompleted(*served, 3, "success"));
  const json second = AwaitFilm(*served);
  ASSERT_FALSE(second.is_null());
  ExpectFilm(Probe(*served, WebFile(second, "video_url")), 2, 24);
  // After a restart it is begun when the broker hears of it.
  Fault(*served, "cover.ts");
  PrintOne(*served);
  EXPECT_TRUE(AwaitCompleted(*served, 4, "failed"));
  EXPECT_TRUE(served->board.SignalDaemon(SIGKILL));
  EXPECT_EQ(served->board.AwaitDaemonEnd(), 128 + SIGKILL);
  EXPECT_EQ(served->board.Shell("ip link set lo down").status, 0);
  EXPECT_TRUE(served->board.StartDaemon());
  // sleeps: for what must not happen there is nothing to wait for
  std::this_thread::sleep_for(std::chrono::seconds(5));
  EXPECT_EQ(served->board.Shell("cat /userdata/.tmp_timelapse/current/state").out, "GENERATING\n");
  EXPECT_EQ(served->board.Shell("ip link set lo up").status, 0);
  EXPECT_TRUE(AwaitCompleted(*served, 5, "success"));
  EXPECT_THAT(served->rpc.Problems(), IsEmpty());
}

TEST_F(TimelapseTest, AFullDiskCostsNoPhotoThatWasAnswered) {
  // A rate of which MPEG-TS cannot tell the time of a frame.
  constexpr int kOddRate = 211;
  BootOptions options = DaemonOptions();
  ServedBoard served(options, [](const Board& board) {
    WithDeployment(R"({"min_free_space_mib": 0})")(board);
    EXPECT_EQ(board
                  .Shell("mkdir /userdata/.tmp_timelapse && "
                         "mount -t tmpfs -o size=16m none /userdata/.tmp_timelapse")
                  .status,
              0);
  });
  ASSERT_TRUE(served.rpc.AwaitDaemon());
  const auto leave = [&](int kilobytes) {
    return served.board.Shell(
        "cd /userdata/.tmp_timelapse; rm -f .filler; free=$(df --output=avail -k . | tail -n 1); "
        "head -c $((free - " +
        std::to_string(kilobytes) + "))k /dev/zero >.filler");
  };
  ASSERT_EQ(Start(served, "new", kOddRate), Success());
  int photos = 0;
  for (const int room : {16384, 4, 60, 200, 400, 800, 16384}) {
    if (room < 16384) (void)leave(room);
    for (int i = 0; i < 2; ++i) {
      const json answer = Print(served);
      photos += answer == Success() ? 1 : 0;
      EXPECT_TRUE(answer == Success() || answer == Error(-32000, "Take photo failed")) << answer;
    }
    (void)served.board.Shell("rm -f /userdata/.tmp_timelapse/.filler");
  }
  EXPECT_GE(photos, 4);
  EXPECT_LT(photos, 14);
  (void)leave(0);
  EXPECT_EQ(served.rpc.Call("camera.stop_timelapse", nullptr), Success());
  EXPECT_TRUE(AwaitCompleted(served, 1, "failed"));
  (void)served.board.Shell("rm -f /userdata/.tmp_timelapse/.filler");
  PrintOne(served);
  const json film = AwaitFilm(served, 2);
  ASSERT_FALSE(film.is_null());
  ExpectFilm(Probe(served, WebFile(film, "video_url")), photos + 1, kOddRate);
}

/// A print on a board whose daemon is killed again and again.
class KilledPrint {
 public:
  KilledPrint(std::unique_ptr<ServedBoard> served, unsigned seed)
      : served_(std::move(served)), random_(seed) {}

  void Run(int kills) {
    // Some prints, so that films are made, listed and deleted meanwhile.
    while (kills_ < kills && !testing::Test::HasFailure()) OnePrint();
    ASSERT_TRUE(AwaitStillness());
    EXPECT_EQ(served_->board
                  .Shell("ls -A /userdata/.tmp_timelapse | grep -v -x -e '[0-9]*' -e .lock "
                         "-e current -e index_next -e timelapse.json; "
                         "find /home/ruxo/printer_data/camera -xtype l")
                  .out,
              "");
    EXPECT_THAT(served_->rpc.Problems(), IsEmpty());
    std::set<json> told;
    for (const auto& notice :
         served_->rpc.Notifications("notify_camera_generate_video_completed")) {
      EXPECT_TRUE(notice.params.at("state") == "failed" || told.insert(notice.params).second)
          << "told twice: " << notice.params;
    }
  }

 private:
  void OnePrint() {
    const json started = served_->rpc.Post("camera.start_timelapse", StartParams("new"));
    if (!MaybeKill(false)) (void)served_->rpc.Await(started);  // or the next one may overtake it
    if (!Accepted("camera.start_timelapse", StartParams("new"))) return;
    int photos = 0;
    const int wanted = 1 + static_cast<int>(random_() % 5);
    while (photos < wanted) {
      (void)MaybeKill(true);
      if (Accepted("camera.take_a_photo", {{"reason", "printing"}})) ++photos;
    }
    (void)MaybeKill(true);
    if (!Accepted("camera.stop_timelapse", nullptr)) return;
    (void)MaybeKill(false);
    json film;
    ASSERT_TRUE(test::Eventually(
        [&] {
          film = Newest();
          return film.is_object();
        },
        std::chrono::seconds(240)))
        << "a film is lost";
    ExpectPlays(film, photos + 1);
    if (random_() % 2 == 0) return;
    const json deletion =
        served_->rpc.Post("camera.delete_timelapse_instance", {{"date_index", film["date_index"]}});
    if (!MaybeKill(false)) (void)served_->rpc.Await(deletion);
  }

  static json StartParams(const char* type) {
    return {{"type", type}, {"mode", "classic"}, {"frame_rate", 24}};
  }
  bool Accepted(const char* method, const json& params) {
    const json answer = served_->rpc.Call(method, params);
    EXPECT_EQ(answer, Success()) << method;
    return answer == Success();
  }
  /// At a random moment of whatever goes on; the print goes on afterwards.
  bool MaybeKill(bool printing) {
    if (random_() % 2 == 0) return false;
    if (printing) (void)served_->rpc.Post("camera.take_a_photo", {{"reason", "printing"}});
    // sleeps: any moment
    std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 500));
    EXPECT_TRUE(served_->board.SignalDaemon(SIGKILL));
    EXPECT_EQ(served_->board.AwaitDaemonEnd(), 128 + SIGKILL);
    EXPECT_TRUE(served_->board.StartDaemon());
    EXPECT_TRUE(served_->rpc.AwaitDaemon());
    ++kills_;
    if (printing) (void)Accepted("camera.start_timelapse", StartParams("continue"));
    return true;
  }
  /// The film of this print; a deletion may be going on.
  json Newest() {
    const json films = TimelapseTest::Films(*served_);
    if (!films.is_array() || films.empty() || films[0]["date_index"] <= last_) return nullptr;
    return films[0];
  }
  void ExpectPlays(const json& film, int frames) {
    last_ = film["date_index"];
    const json probed = TimelapseTest::Probe(*served_, TimelapseTest::WebFile(film, "video_url"));
    ASSERT_TRUE(probed.is_object()) << probed;
    EXPECT_GE(std::stoi(probed.at("nb_read_frames").get<std::string>()), frames)
        << "each answered photo and the cover";
  }
  /// Every film is made, and what was deleted is gone.
  bool AwaitStillness() {
    return test::Eventually(
        [&] {
          return served_->board.Shell("grep -L FINISHED /userdata/.tmp_timelapse/[0-9]*/state")
              .out.empty();
        },
        std::chrono::seconds(240));
  }

  const std::unique_ptr<ServedBoard> served_;
  std::mt19937 random_;
  int kills_ = 0;
  std::string last_;
};

TEST_F(TimelapseTest, DaemonsThatAreKilledAtAnyMomentLoseNoFilm) {
  const char* wanted = std::getenv("VARNEL_KILLS");
  const int kills = wanted != nullptr ? std::atoi(wanted) : 10;
  const int boards = kills < 4 ? 1 : 4;
  std::list<KilledPrint> prints;
  std::list<std::jthread> threads;
  for (int i = 0; i < boards; ++i) prints.emplace_back(NewBoard(CameraKind::kMipi), 20261122 + i);
  for (KilledPrint& print : prints)
    threads.emplace_back([&] { print.Run((kills + boards - 1) / boards); });
}

}  // namespace
}  // namespace varnel::board

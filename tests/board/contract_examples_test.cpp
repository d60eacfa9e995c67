// Every example of the contract, run against the daemon.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "board/run_inside.h"
#include "board/scenes.h"
#include "board/served_board.h"
#include "virtual_board/client/daemon_talk.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kPhotographedPrint = "a print that is photographed";

/// The store of a printer with the film that the contract shows.
void PutFilm(const Board& board) {
  const fs::path root = "/userdata/.tmp_timelapse";
  const std::string index = "20261122180000";
  const fs::path work = root / index;
  fs::create_directories(board.HostPath(work));
  std::ofstream(board.HostPath(work) / "timelapse_f121_r30_classic.mp4") << std::string(4096, 'f');
  std::ofstream(board.HostPath(work) / "thumbnail.jpg") << "thumbnail";
  std::ofstream(board.HostPath(work) / "thumbnail_base64.txt") << "dGh1bWJuYWls";
  std::ofstream(board.HostPath(work) / "state") << "FINISHED\n";
  const json film = {{"date_index", index},
                     {"gcode_name", "benchy.gcode"},
                     {"gcode_path", "gcodes/benchy.gcode"},
                     {"timelapse_dir", work},
                     {"video_path", work / "timelapse_f121_r30_classic.mp4"},
                     {"thumbnail_path", work / "thumbnail.jpg"},
                     {"generate_date", "2026-11-22"},
                     {"unix_timestamp_s", 1795370400},
                     {"video_duration", "00:04"}};
  std::ofstream(board.HostPath(root / "timelapse.json"))
      << json{{"count", 1}, {"instances", {film}}};
}

/// What an example can ask to be arranged before it runs.
void Arrange(ServedBoard& served, const std::string& given) {
  const Board& board = served.board;
  const std::map<std::string, json> scenes = {
      {"", json::object()},
      {"camera stalled", json::object()},
      {"one film", json::object()},
      {kPhotographedPrint, json::object()},
      {"clean bed", json::object()},
      {"darkness", {{"bed", {10, 10, 10}}}},
      {"noodle on the bed", {{"objects", {{{"class", "noodle"}, {"box", {612, 312, 852, 552}}}}}}}};
  ASSERT_EQ(scenes.count(given), 1U) << "nobody knows how to arrange \"" << given << '"';
  ShowScene(board, scenes.at(given));
  board.SetCameraFaults(given == "camera stalled" ? "stall" : "");
  if (given == "one film") {
    PutFilm(board);
  } else if (given.empty()) {
    fs::remove(board.HostPath("/userdata/.tmp_timelapse/timelapse.json"));
  }
  if (given == kPhotographedPrint) {
    EXPECT_EQ(served.rpc.Call("camera.start_timelapse", {{"mode", "classic"}, {"frame_rate", 30}}),
              Success());
    EXPECT_EQ(served.rpc.Call("camera.take_a_photo", {{"reason", "printing"}}), Success());
  }
}

/// The printer whose identity the contract shows.
void BecomeTheExample(const Board& board) {
  WriteIdentityBlock(
      board.Paths().Dev() / "mmcblk0", kIdentityOffset,
      ClearIdentityBlock(R"({"SerialNumber":"VB2611000001","ProductCode":"VBOARD"})"));
  const fs::path interface = board.Paths().Sys() / "class/net/wlan0/address";
  const fs::path voltage = board.Paths().Sys() / "bus/iio/devices/iio:device0/in_voltage2_raw";
  std::ofstream(interface) << "02:00:00:00:00:01\n";
  std::ofstream(voltage) << "128\n";
  std::ofstream(board.Paths().Etc() / "VERSION") << "1.0.0\n";
  std::ofstream(board.Paths().Etc() / "FULLVERSION") << "1.0.0.20261101\n";
}

TEST(ContractExamplesTest, TheDaemonAnswersEachExampleAsWritten) {
  ServedBoard served(DaemonOptions(), BecomeTheExample);
  ASSERT_TRUE(served.rpc.AwaitDaemon());
  auto examples = DaemonContract().Examples();
  // The failures are those of a printer on which nothing has been started.
  std::stable_partition(examples.begin(), examples.end(),
                        [](const auto& example) { return example.answer.contains("error"); });
  // This one leaves a film behind.
  std::stable_partition(examples.begin(), examples.end(),
                        [](const auto& example) { return example.given != kPhotographedPrint; });
  for (const auto& example : examples) {
    if (example.request_topic.empty()) continue;  // a notification
    SCOPED_TRACE(example.name);
    ASSERT_NO_FATAL_FAILURE(Arrange(served, example.given));
    EXPECT_EQ(served.rpc.Call(example.method, example.params, example.request_topic),
              example.answer);
  }
  EXPECT_TRUE(IsWholeJpeg(served.File("/userdata/p.jpg")));
  EXPECT_TRUE(IsWholePng(served.File("/userdata/p_20250101000000.png")));
}

}  // namespace
}  // namespace varnel::board

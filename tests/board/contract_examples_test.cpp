// Every example of the contract, run against the daemon.
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "board/daemon_talk.h"
#include "board/scenes.h"
#include "board/served_board.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::IsEmpty;

/// What an example can ask to be arranged before it runs.
void Arrange(const Board& board, const std::string& given) {
  const std::map<std::string, json> scenes = {
      {"", json::object()},
      {"camera stalled", json::object()},
      {"clean bed", json::object()},
      {"darkness", {{"bed", {10, 10, 10}}}},
      {"noodle on the bed", {{"objects", {{{"class", "noodle"}, {"box", {612, 312, 852, 552}}}}}}}};
  ASSERT_EQ(scenes.count(given), 1U) << "nobody knows how to arrange \"" << given << '"';
  ShowScene(board, scenes.at(given));
  board.SetCameraFaults(given == "camera stalled" ? "stall" : "");
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
  for (const auto& example : examples) {
    if (example.request_topic.empty()) continue;  // a notification
    SCOPED_TRACE(example.name);
    ASSERT_NO_FATAL_FAILURE(Arrange(served.board, example.given));
    EXPECT_EQ(served.rpc.Call(example.method, example.params, example.request_topic),
              example.answer);
  }
  EXPECT_TRUE(IsWholeJpeg(served.File("/userdata/p.jpg")));
  EXPECT_TRUE(IsWholePng(served.File("/userdata/p_20250101000000.png")));
  EXPECT_THAT(served.rpc.Problems(), IsEmpty());
}

}  // namespace
}  // namespace varnel::board

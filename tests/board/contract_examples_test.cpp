// Every example of the contract, run against the daemon.
#include <gmock/gmock.h>

#include <map>

#include "board/daemon_talk.h"
#include "board/served_board.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::IsEmpty;

/// What an example can ask to be arranged before it runs.
void Arrange(const Board& board, const std::string& given) {
  const std::map<std::string, std::string> faults = {{"", ""}, {"camera stalled", "stall"}};
  ASSERT_EQ(faults.count(given), 1U) << "nobody knows how to arrange \"" << given << '"';
  board.SetCameraFaults(faults.at(given));
}

TEST(ContractExamplesTest, TheDaemonAnswersEachExampleAsWritten) {
  ServedBoard served(DaemonOptions());
  ASSERT_TRUE(served.rpc.AwaitDaemon());
  for (const auto& example : DaemonContract().Examples()) {
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

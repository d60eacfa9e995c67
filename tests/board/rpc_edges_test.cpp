// Requests as nobody should send them, over the real broker: each is answered, or dropped with one
// line of log, and the daemon goes on.
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include "board/run_inside.h"
#include "board/served_board.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::IsEmpty;

constexpr const char* kCamera = "camera/request";

BootOptions WithoutBroker() {
  BootOptions options = DaemonOptions();
  options.start_broker = false;
  return options;
}

class RpcEdgesTest : public testing::Test {
 protected:
  /// The broker would drop messages itself when the daemon does not read a thousand in time.
  static void SetUpTestSuite() {
    board = std::make_unique<Board>(WithoutBroker());
    std::ofstream(board->Paths().Etc() / "mosquitto.d/queue.conf") << "max_queued_messages 0\n";
    ASSERT_TRUE(board->StartBroker());
    board->SetCameraFaults("unplug");  // without a camera the start is quick
    ASSERT_TRUE(board->StartDaemon());
    rpc = std::make_unique<RpcCaller>(*board);
    ASSERT_TRUE(rpc->AwaitDaemon());
  }
  static void TearDownTestSuite() {
    rpc.reset();
    board.reset();
  }
  void TearDown() override {
    EXPECT_THAT(rpc->Problems(), IsEmpty());
    EXPECT_EQ(Status().at("result").at("state"), "success");
  }

  static json Status() { return rpc->Call("camera.get_status", nullptr); }
  /// Returns when everything sent before is dealt with: each lane and the listeners keep the order.
  static void Settle() {
    for (int round = 0; round < 3; ++round) EXPECT_FALSE(Status().is_null());
  }
  static std::unique_ptr<Board> board;
  static std::unique_ptr<RpcCaller> rpc;
};
std::unique_ptr<Board> RpcEdgesTest::board;
std::unique_ptr<RpcCaller> RpcEdgesTest::rpc;

std::string StatusRequest(const std::string& members) {
  return R"({"jsonrpc":"2.0","method":"camera.get_status",)" + members + "}";
}

TEST_F(RpcEdgesTest, EveryRequestTopicAnswersOnItsOwn) {
  for (const auto& [request, response] : {std::pair("system/request", "system/response"),
                                          {"camera/request", "camera/response"},
                                          {"mqtt_agent/request", "mqtt_agent/response"},
                                          {"mqtt_agent/request/ui", "mqtt_agent/response/ui"}}) {
    const auto answer = board->Exec({"mosquitto_rr", "-t", request, "-e", response, "-W", "20",
                                     "-m", StatusRequest(R"("id":"a")")});
    EXPECT_TRUE(json::parse(answer.out, nullptr, false).contains("result")) << request;
  }
}

/// Last, for it ends the daemon to have its whole log.
TEST_F(RpcEdgesTest, AFloodIsAnsweredOrLoggedAndEveryLogLineIsShort) {
  constexpr size_t kRequests = 5'000;
  Settle();
  const size_t before = rpc->Answers().size();
  for (size_t i = 0; i < kRequests; ++i) {
    rpc->Publish(kCamera, StatusRequest("\"id\":\"flood-" + std::to_string(i) + "\""));
  }
  Settle();
  const size_t answered = rpc->Answers().size() - before - 3;
  ASSERT_TRUE(board->SignalDaemon(SIGTERM));
  ASSERT_EQ(board->AwaitDaemonEnd(), 0);

  size_t dropped = 0;
  const std::regex form(R"(\[[-0-9]+ [0-9:.]+\] \[.*\] \[[A-Z0-9_]+:[0-9]+\] .*)");
  std::istringstream log(board->DaemonLog());
  for (std::string line; std::getline(log, line);) {
    EXPECT_LT(line.size(), 1024U) << line.substr(0, 300);
    EXPECT_TRUE(std::regex_match(line.substr(0, 200), form)) << line.substr(0, 300);
    dropped += line.find("queue full (256 messages), dropping oldest") != line.npos ? 1U : 0U;
  }
  EXPECT_EQ(answered + dropped, kRequests) << answered << " were answered";
  ASSERT_TRUE(board->StartDaemon());
  ASSERT_TRUE(rpc->AwaitDaemon());
}

}  // namespace
}  // namespace varnel::board

// Requests as nobody should send them, over the real broker: each is answered, or dropped with one
// line of log, and the daemon goes on.
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include "board/served_board.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::IsEmpty;

constexpr size_t kMaxPayload = size_t{1} << 20U;
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
  /// How many answers these payloads get.
  static size_t AnswersTo(const std::vector<std::string>& payloads) {
    Settle();
    const size_t before = rpc->Answers().size();
    for (const std::string& payload : payloads) rpc->Publish(kCamera, payload);
    Settle();
    return rpc->Answers().size() - before - 3;
  }

  static std::unique_ptr<Board> board;
  static std::unique_ptr<RpcCaller> rpc;
};
std::unique_ptr<Board> RpcEdgesTest::board;
std::unique_ptr<RpcCaller> RpcEdgesTest::rpc;

std::string StatusRequest(const std::string& members) {
  return R"({"jsonrpc":"2.0","method":"camera.get_status",)" + members + "}";
}

std::string Nested(size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

/// A status request of exactly this many bytes.
std::string RequestOfSize(size_t bytes, const std::string& id) {
  const std::string head = R"({"method":"camera.get_status","id":")" + id + R"(","params":")";
  return head + std::string(bytes - head.size() - 2, 'x') + "\"}";
}

TEST_F(RpcEdgesTest, AnIdOfAnyTypeComesBackAsTheSameValue) {
  const std::string ids[] = {"null",
                             "true",
                             "false",
                             "0",
                             "-0",
                             "-1",
                             "1.5",
                             "-1e300",
                             "5e-324",
                             "9223372036854775807",
                             "-9223372036854775808",
                             "18446744073709551615",
                             "18446744073709551616",
                             "-9223372036854775809",
                             "123456789012345678901234567890",
                             "\"\"",
                             R"("\u0000\n\"\\\ud83d\udcf7")",
                             "\"\xF0\x9F\x93\xB7\"",
                             "[]",
                             "{}",
                             R"({"b":[1,{"a":null}],"":false})",
                             Nested(63),
                             "\"" + std::string(500'000, 'i') + "\""};
  for (const std::string& id : ids) {
    rpc->Publish(kCamera, StatusRequest("\"id\":" + id));
    EXPECT_TRUE(rpc->Await(json::parse(id)).contains("result")) << id.substr(0, 40);
  }
}

TEST_F(RpcEdgesTest, WhatCannotBeServedGetsNoAnswer) {
  const std::string deep = Nested(100'000);
  EXPECT_EQ(AnswersTo({StatusRequest(R"("params":{})"),  // a notification
                       R"({"jsonrpc":"2.0","method":"camera.none","params":[]})",
                       "",
                       " ",
                       "{",
                       "nonsense",
                       "\xFF\xFE",
                       std::string("\0{}", 3),
                       "[]",
                       "[1]",
                       "7",
                       "null",
                       "\"camera.get_status\"",
                       R"({"id":1})",
                       R"({"id":1,"method":1})",
                       R"({"id":1,"method":null})",
                       R"({"id":1,"method":["camera.get_status"]})",
                       R"({"id":1,"method":"camera.get_status"} {})",
                       "[" + StatusRequest(R"("id":1)") + "]",
                       StatusRequest("\"id\":\"\xC3\""),
                       StatusRequest("\"id\":\"\xED\xA0\x80\""),
                       StatusRequest(R"("id":"\ud800")"),
                       StatusRequest(R"("id":1e999999)"),
                       StatusRequest("\"id\":1" + std::string(900'000, '0') + ".0"),
                       StatusRequest("\"id\":" + deep),
                       StatusRequest("\"id\":1,\"params\":" + deep),
                       deep,
                       std::string(kMaxPayload, '['),
                       std::string(kMaxPayload, '{'),
                       StatusRequest("\"id\":" + Nested(64)),
                       RequestOfSize(kMaxPayload + 1, "long"),
                       std::string(3 * kMaxPayload, 'x')}),
            0U);
}

TEST_F(RpcEdgesTest, WhatIsOnlyUnusualIsServed) {
  EXPECT_EQ(AnswersTo({R"({"method":"camera.get_status","id":"no version"})",
                       R"({"jsonrpc":1,"method":"camera.get_status","id":"version"})",
                       R"({"id":1,"method":"none","id":"twice","method":"camera.get_status"})",
                       StatusRequest(R"("id":"more","result":1,"error":{},"x":[])"),
                       " \r\n\t" + StatusRequest(R"("id":"blanks")") + "\n",
                       StatusRequest("\"id\":\"deep\",\"params\":" + Nested(63)),
                       RequestOfSize(kMaxPayload, "whole")}),
            7U);
  for (const char* id : {"no version", "version", "twice", "more", "blanks", "deep", "whole"}) {
    EXPECT_TRUE(rpc->Await(id).contains("result")) << id;
  }
}

TEST_F(RpcEdgesTest, EveryRequestTopicAnswersOnItsOwn) {
  const std::pair<const char*, const char*> topics[] = {
      {"system/request", "system/response"},
      {"camera/request", "camera/response"},
      {"mqtt_agent/request", "mqtt_agent/response"},
      {"mqtt_agent/request/ui", "mqtt_agent/response/ui"}};
  for (const auto& [request, response] : topics) {
    const auto answer = board->Exec(
        {"mosquitto_rr", "-t", request, "-e", response, "-W", "20", "-m",
         R"({"jsonrpc":"2.0","id":")" + std::string(request) + R"(","method":"system.none"})"});
    const json expected = {{"jsonrpc", "2.0"},
                           {"id", request},
                           {"error",
                            {{"code", -32601},
                             {"message", "Method not found"},
                             {"data", "Method not found: system.none"}}}};
    EXPECT_EQ(json::parse(answer.out, nullptr, false), expected) << request;
    EXPECT_TRUE(rpc->Call("camera.get_status", nullptr, request).contains("result")) << request;
  }
}

TEST_F(RpcEdgesTest, TopicsOfAnyLengthDoNoHarm) {
  const std::string topic = "mqtt_agent/request/";
  for (const size_t length : {65'533U, 65'534U, 65'535U}) {
    rpc->Publish(topic + std::string(length - topic.size(), 'u'),
                 StatusRequest("\"id\":" + std::to_string(length)));
  }
  EXPECT_TRUE(rpc->Await(65'534).contains("result")) << "its answer's topic is the longest of all";
  EXPECT_TRUE(Status().contains("result"));
  EXPECT_TRUE(rpc->Await(65'535, std::chrono::milliseconds(200)).is_null());
}

TEST_F(RpcEdgesTest, ARetainedRequestIsServedOnce) {
  const auto retained = board->Shell(
      R"(mosquitto_pub -t system/request -r -m '{"id":"retained","method":"camera.get_status"}')");
  EXPECT_EQ(retained.status, 0) << retained.err;
  EXPECT_TRUE(rpc->Await("retained").contains("result"));
  EXPECT_EQ(board->Shell("mosquitto_pub -t system/request -r -n").status, 0);
  Settle();
  const auto answers = rpc->Answers();
  EXPECT_EQ(std::count_if(answers.begin(), answers.end(),
                          [](const json& one) { return one["id"] == "retained"; }),
            1);
}

TEST_F(RpcEdgesTest, AClientThatTakesTheDaemonsNameDoesNotSilenceIt) {
  const auto identity = board->Shell("mosquitto_sub -i varnel -V 5 -t none -W 1 -d");
  EXPECT_NE(identity.out.find("received CONNACK (0)"), std::string::npos) << identity.out;
  EXPECT_TRUE(rpc->AwaitDaemon());
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
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

  const std::vector<std::string> lines = LinesOf(board->DaemonLog());
  const auto dropped = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("queue full (256 messages), dropping oldest") != std::string::npos;
  });
  EXPECT_EQ(answered + static_cast<size_t>(dropped), kRequests) << answered << " were answered";
  const std::regex form(R"(\[[-0-9]+ [0-9:.]+\] \[.*\] \[[A-Z0-9]+:[0-9]+\] .*)");
  for (const std::string& line : lines) {
    EXPECT_LT(line.size(), 1024U) << line.substr(0, 300);
    EXPECT_TRUE(std::regex_match(line.substr(0, 200), form)) << line.substr(0, 300);
  }
  ASSERT_TRUE(board->StartDaemon());
  ASSERT_TRUE(rpc->AwaitDaemon());
}

}  // namespace
}  // namespace varnel::board

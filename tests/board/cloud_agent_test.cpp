// A board that joins the maker's cloud, from a daemon that has never seen one to requests of a
// cloud client, and what it takes to keep it out or bring it back.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <regex>
#include <tuple>

#include "board/cloud_board.h"
#include "support/eventually.h"
#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::ElementsAre;

constexpr const char* kCertificates = "/api/device/getMqttCert";

class CloudAgentTest : public testing::Test {
 protected:
  ~CloudAgentTest() override { TheCloud().SetFaults(""); }
};

TEST_F(CloudAgentTest, AFreshBoardJoinsAndComesBackAfterAKill) {
  BootOptions options;
  options.device_key = KeyKind::kRsa;
  CloudBoard board(options, true);
  json config = board.Ask("sync_config").at("result");
  EXPECT_EQ(config.at("region"), "");
  EXPECT_EQ(config.at("link_mode"), "wan");
  EXPECT_FALSE(TheCloud().AwaitEntry(
      [&](const json& entry) {
        return entry.at("event") != "joined" && entry.value("board", "") == board.serial;
      },
      std::chrono::milliseconds(1)));

  TheCloud().Bind(board.serial, "u1", "Ada");
  board.Join();
  EXPECT_THAT(board.States(),
              ElementsAre("disconnected", "detecting_network", "fetching_authentication",
                          "detecting_broker", "connecting_broker", "connected"));
  EXPECT_EQ(TheCloud().Device(board.serial).at("online"), 1);
  EXPECT_EQ(board.Ask("sync_config").at("result").at("username"), "Ada");
  EXPECT_TRUE(test::Eventually(
      [&] { return board.client.Record().Notifications("notify_bind_user").size() == 1; }));
  const json photo =
      board.client.Call("camera.take_a_photo", {{"reason", "debug"}, {"filepath", "/tmp/c.jpg"}});
  EXPECT_EQ(photo.at("result").at("state"), "success") << photo;
  EXPECT_TRUE(IsWholeJpeg(board.File("/tmp/c.jpg")));
  EXPECT_EQ(
      board.client.Call("mqtt_agent.set_region", {{"region", "cn"}}).at("error").at("message"),
      "Method not found");

  const size_t fetched = board.Requests(kCertificates);
  EXPECT_EQ(fetched, 1U);
  board.KillAndStart();
  ASSERT_TRUE(board.rpc.AwaitDaemon());
  EXPECT_TRUE(board.Await("connected"));
  EXPECT_EQ(board.Requests(kCertificates), fetched) << "what is on the disk is still good";

  board.Join("cn");
  EXPECT_EQ(board.Requests("/api/device/connect/unbind"), 1U) << "of the user at the old region";
  EXPECT_EQ(board.Requests("/api/device/connect/auth"), 1U);
  EXPECT_EQ(board.Ask("sync_config").at("result").at("username"), "");

  for (const auto& [marker, host] : {std::pair("/oem/.preview_server", "pre.api.cn.example.test"),
                                     std::pair("/oem/.local_server", "127.0.0.2")}) {
    ASSERT_EQ(board.board.Shell(std::string("touch ") + marker).status, 0);
    board.Restart();
    EXPECT_TRUE(board.Await("connected"));
    EXPECT_EQ(TheCloud().Requests("/api/device/update", board.serial).back().at("host"), host);
  }
}

/// What a board is asked for in a wrong way, whatever its state.
void ExpectRefusals(CloudBoard& board) {
  const json invalid = Error(-32602, "Invalid params");
  const std::vector<std::pair<std::string, std::vector<json>>> wrong{
      {"set_region", {nullptr, {{"region", "mars"}}, {{"region", 1}}, {{"region", ""}}}},
      {"set_link_mode", {json::array(), {{"link_mode", "van"}}}},
      {"sync_config", {{{"name", ""}}, {{"name", "a\nb"}}, {{"name", std::string(129, 'x')}}}},
      {"logout", {{{"user", 1}}}},
      {"factory_reset", {json::array({1})}},
      {"update_device_status", {nullptr, {{"status", -1}}, {{"status", 256}}, {{"status", "1"}}}},
      {"refresh_auth_code", {json::array({1})}},
      {"push_print_task", {nullptr, json::object(), json::array({1})}},
      {"pull_print_task", {{{"job_id", 7}}, {{"job_id", "a\r\nb"}}}},
      {"authorize_file_url", {{{"url", ""}}, {{"url", std::string(5000, 'u')}}}},
  };
  for (const auto& [method, params] : wrong) {
    for (const json& one : params) EXPECT_EQ(board.Ask(method, one), invalid) << method << one;
  }
}

/// All that is published in a board, as one text.
class LocalTopics {
 public:
  explicit LocalTopics(CloudBoard& board) : board_(board) {
    EXPECT_TRUE(board.board.RunService(
        "listener", {"/bin/sh", "-c", std::string("exec mosquitto_sub -t '#' -v > ") + kFile}));
    EXPECT_TRUE(test::Eventually([&] {
      (void)board.board.Shell("mosquitto_pub -t planted -m planted-secret");
      return Mentions("planted-secret") > 0;
    }));
  }
  [[nodiscard]] size_t Mentions(const std::string& secret) const {
    const std::string all = board_.File(kFile);
    size_t count = 0;
    for (size_t at = all.find(secret); at != all.npos; at = all.find(secret, at + 1)) ++count;
    return count;
  }

 private:
  static constexpr const char* kFile = "/etc/varnel/topics";
  CloudBoard& board_;
};

TEST_F(CloudAgentTest, WhatIsAskedOfTheCloudAndWhatStaysSecret) {
  CloudBoard board;
  TheCloud().Bind(board.serial, "u1", "Ada");
  ExpectRefusals(board);
  const json task = {{"job_id", "j"}};
  EXPECT_EQ(board.Ask("pull_print_task", task), Error(-32000, "Cloud not connected"));
  const LocalTopics topics(board);
  board.Join();
  const json code = board.Ask("refresh_auth_code").at("result").at("code");
  EXPECT_THAT(TheCloud().Device(board.serial).at("pairing_codes"), testing::Contains(code));
  const json url =
      board.Ask("authorize_file_url", {{"url", "https://files.test/a"}}).at("result").at("url");
  EXPECT_EQ(board.Ask("push_print_task", {{"job_id", "j1"}, {"state", "printing"}}), Success());
  EXPECT_EQ(board.Ask("pull_print_task", {{"job_id", "j1"}}).at("result").at("state"), "success");
  EXPECT_EQ(board.Ask("update_device_status", {{"status", 2}}), Success());
  EXPECT_EQ(TheCloud().Device(board.serial).at("online"), 2);
  TheCloud().SetFaults("status /api/device/print device=" + board.serial + " 500\n");
  ExpectRefusals(board);
  EXPECT_EQ(board.Ask("pull_print_task", task), Error(-32000, "Cloud request failed"));

  // A logout that the cloud takes its time for: no request runs meanwhile.
  TheCloud().SetFaults("delay /api/device/connect/unbind device=" + board.serial + " 2\n");
  EXPECT_EQ(board.Ask("logout"), Success());
  const json late = board.client.Post("camera.get_status", nullptr);
  EXPECT_TRUE(board.AwaitLog("drop cloud request, logging out id: "));
  EXPECT_TRUE(board.AwaitLog("the user of region int is logged out"));
  EXPECT_EQ(board.client.CallUntilAnswered("camera.get_status", nullptr).at("result").at("state"),
            "success");
  EXPECT_EQ(board.client.Record().Notifications("notify_logout").size(), 1U);
  EXPECT_TRUE(board.client.Await(late, std::chrono::milliseconds(10)).is_null());

  // Planted: the search finds what is there.
  std::vector<std::string> secrets{code, url, "planted-secret"};
  for (const json& request : TheCloud().Requests("/api/device/connect/relation", board.serial)) {
    for (const json& header : request.at("headers")) {
      if (header.at(0) == "Authorization")
        secrets.push_back(header.at(1).get<std::string>().substr(7));
    }
  }
  secrets.push_back(
      json::parse(ReadClearIdentityBlock(board.board.Paths().Dev() / "mmcblk0")).at("PrivateKey"));
  const std::string places =
      "/proc/[0-9]*/cmdline /proc/[0-9]*/environ /home/ruxo /tmp /userdata /run /var/log /oem";
  ASSERT_EQ(board.board.Shell("echo planted-secret > /tmp/planted").status, 0);
  for (const std::string& secret : secrets) {
    ReplaceFile(board.board.HostPath("/etc/varnel/secret"), secret);
    const std::string found = board.board
                                  .Shell("grep -rlaF --exclude-dir=certs -f /etc/varnel/secret " +
                                         places + " 2>/dev/null")
                                  .out;
    EXPECT_EQ(found, secret == "planted-secret" ? "/tmp/planted\n" : "");
    if (secret == "planted-secret") continue;
    EXPECT_EQ(topics.Mentions(secret), secret == code || secret == url ? 1U : 0U)
        << "but in the answer that gives it";
  }
  EXPECT_EQ(
      board.board.Shell("cd /home/ruxo/printer_data; stat -c %a certs mqtt certs/* mqtt/*").out,
      "700\n700\n600\n600\n600\n600\n600\n");
}

TEST_F(CloudAgentTest, HostileRequestsOfTheCloudAreAnsweredOrDroppedWithALine) {
  CloudBoard board;
  board.Join();
  const std::string topic = board.serial + "/request";
  std::string deep = R"({"id":1,"method":"camera.get_status","params":)";
  for (int i = 0; i < 65; ++i) deep += '[';
  for (int i = 0; i < 65; ++i) deep += ']';
  for (const std::string& bad :
       {std::string("{"), std::string("\xff\xfe"), deep + "}", std::string((1U << 20U) + 1, ' ')})
    board.client.Publish(topic, bad);
  const auto dropped = [&] {
    const std::string log = board.board.DaemonLog();
    const std::regex line("drop|overflow|Server busy|dispatch failed");
    return static_cast<size_t>(
        std::distance(std::sregex_iterator(log.begin(), log.end(), line), {}));
  };
  EXPECT_TRUE(test::Eventually([&] { return dropped() >= 3; }));
  const size_t before = board.client.Record().Answers().size();
  const size_t dropped_before = dropped();
  for (int i = 0; i < 1000; ++i) (void)board.client.Post("camera.get_status", nullptr);
  EXPECT_TRUE(test::Eventually([&] {
    return board.client.Record().Answers().size() - before + dropped() - dropped_before >= 1000;
  })) << board.client.Record().Answers().size() - before
      << " answers, " << dropped() - dropped_before << " dropped";
  EXPECT_EQ(board.Status(), "connected");
}

TEST_F(CloudAgentTest, NoWrongCertificateOpensALinkAndAClockThatIsNotSetCostsNothing) {
  BootOptions options;
  options.clock = true;
  CloudBoard api(options);
  CloudBoard broker;
  broker.Join();
  api.Join();
  const size_t fetched = api.Requests(kCertificates);
  const auto fault = [&](const char* kind) {
    TheCloud().SetFaults("certificate api device=" + api.serial + " " + kind +
                         "\ncertificate broker device=" + broker.serial + " " + kind + "\n");
  };
  fault("expired");
  for (CloudBoard* board : {&api, &broker}) board->KillAndStart();
  for (const char* kind : {"expired", "not-yet", "other-name", "foreign"}) {
    fault(kind);
    for (CloudBoard* board : {&api, &broker}) {
      EXPECT_TRUE(TheCloud().AwaitEntry([&](const json& entry) {
        return entry.value("board", "") == board->serial &&
               entry.value("fault", "").ends_with(kind);
      })) << kind;
    }
  }
  EXPECT_TRUE(api.AwaitLog("RequestOauth2Token: network error"));
  EXPECT_TRUE(broker.AwaitLog("Failed to connect to cloud broker, retrying..."));
  EXPECT_NE(api.Status(), "connected");
  EXPECT_NE(broker.Status(), "connected");
  TheCloud().SetFaults("");
  EXPECT_TRUE(broker.Await("connected"));
  EXPECT_TRUE(api.Await("connected"));

  const auto now = std::chrono::system_clock::now().time_since_epoch();
  api.board.SetClock(-std::chrono::duration_cast<std::chrono::seconds>(now));
  const size_t before = api.StopAndReadLog().size();
  ASSERT_TRUE(api.board.StartDaemon());
  EXPECT_TRUE(api.AwaitLog("RequestOauth2Token: network error", before));
  EXPECT_NE(api.Status(), "connected");
  api.board.SetClock(std::chrono::seconds(0));
  EXPECT_TRUE(api.Await("connected"));
  EXPECT_EQ(api.Requests(kCertificates), fetched) << "nothing was removed";
}

TEST_F(CloudAgentTest, WhatTheApiSaysIsNoHeaderTopicPathOrLine) {
  const std::tuple<const char*, const char*, const char*> values[] = {
      {"oauth2/token", R"({"access_token":"a\r\nX-Evil: 1"})", "invalid access_token!"},
      {"oauth2/token", R"({"access_token":"a","refresh_token":"r\u0000"})",
       "invalid refresh_token!"},
      {"oauth2/token", R"({"access_token":[1]})", "invalid access_token!"},
      {"device/getMqttCert", R"({"endpoint":"a\r\nX-Evil: 1"})", "invalid endpoint!"},
      {"device/getMqttCert", R"({"clientId":"a\u0000"})", "invalid clientid!"},
      {"device/getMqttCert", R"({"port":"-1"})", "invalid port!"},
      {"device/getMqttCert", R"({"port":99999})", "invalid port!"},
      {"device/getMqttCert", R"({"secretKey":"../../x"})", "invalid client key"},
  };
  CloudBoard board;
  EXPECT_EQ(board.Ask("set_region", {{"region", "int"}}), Success());
  size_t seen = 0;
  for (const auto& [path, value, text] : values) {
    SCOPED_TRACE(value);
    TheCloud().SetFaults(std::string("patch /api/") + path + " device=" + board.serial +
                         R"( {"data":)" + value + "}\n");
    // Once more from the beginning, and without a wait.
    EXPECT_EQ(board.Ask("set_link_mode", {{"link_mode", "lan"}}), Success());
    EXPECT_TRUE(board.Await("disconnected"));
    EXPECT_EQ(board.Ask("set_link_mode", {{"link_mode", "wan"}}), Success());
    EXPECT_TRUE(board.AwaitLog(text, seen));
    EXPECT_EQ(board.rpc.Call("camera.get_status", nullptr).at("result").at("state"), "success");
    seen = board.board.DaemonLog().size();
  }
  TheCloud().SetFaults("");
  EXPECT_TRUE(board.Await("connected"));
  const std::string log = board.StopAndReadLog();
  EXPECT_EQ(log.find('\r'), log.npos);
  EXPECT_EQ(log.find('\0'), log.npos);
  EXPECT_EQ(log.find("\nX-Evil"), log.npos);
  for (const json& request : TheCloud().Requests("/api/device/getMqttCert", board.serial))
    EXPECT_EQ(request.at("headers").dump().find("X-Evil"), std::string::npos);
}

TEST_F(CloudAgentTest, WhereverItIsStuckLocalCallsAreAnsweredAndItEndsInTime) {
  const std::vector<std::pair<const char*, const char*>> stuck{
      {"no-names *", "NETWORK_DETECTION"},
      {"silence api", "GET_ACCESS_TOKEN"},
      {"delay /api/device/getMqttCert 60", "FETCHING_AUTH_INFO"},
      {"stall broker 700", "CONNECTING_BROKER"},
      {"refuse api", "NETWORK_DETECTION"},
      {"refuse broker", "BROKER_DETECTION"},
      {"code /api/oauth2/token 602013", "REGION_LOCKED"},
  };
  std::vector<std::unique_ptr<CloudBoard>> boards;
  std::string faults;
  for (const auto& [fault, state] : stuck) {
    boards.push_back(std::make_unique<CloudBoard>());
    const std::string kind = fault;
    const size_t where = kind.find(' ', kind.find(' ') + 1);
    faults += kind.substr(0, where) + " device=" + boards.back()->serial +
              (where == kind.npos ? "" : kind.substr(where)) + "\n";
  }
  TheCloud().SetFaults(faults);
  for (const auto& board : boards)
    EXPECT_EQ(board->Ask("set_region", {{"region", "int"}}), Success());
  OnThreads(boards.size(), [&](size_t i) {
    EXPECT_TRUE(boards[i]->AwaitLog(std::string("-> ") + stuck[i].second)) << stuck[i].first;
    ExpectRefusals(*boards[i]);
    EXPECT_EQ(boards[i]->rpc.Call("camera.get_status", nullptr).at("result").at("state"),
              "success");
    EXPECT_TRUE(boards[i]->board.SignalDaemon(SIGTERM));
    EXPECT_EQ(boards[i]->board.AwaitDaemonEnd(std::chrono::seconds(4)), 0) << stuck[i].first;
  });
}

}  // namespace
}  // namespace varnel::board

#include "service/agent/user_manager.h"

#include <gmock/gmock.h>

#include "service/agent/authentication_world.h"
#include "service/agent/client_log.h"
#include "service/agent/tcp_probe.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using testing::HasSubstr;

class UserManagerTest : public testing::Test, protected AuthenticationWorld {
 protected:
  UserManagerTest() {
    Answer("/api/oauth2/token", TokenReply("t", "r"));
    EXPECT_TRUE(device_->GetAccessToken(25));
    settings_.Change([](AgentConfig& config) {
      config.region = "cn";
      config.user = {"u1", "Ada"};
    });
  }
  static json Good(const json& data) { return {{"code", 200}, {"data", data}}; }
  void Bind(const json& user) { Answer("/api/device/connect/relation", Good(user)); }

  const std::filesystem::path file_ = dir_ / "mqtt/agent_config.json";
  const std::unique_ptr<DeviceAuthentication> device_ = Device();
  DeviceApi api_{*device_, 401, [] {}};
  AgentSettings settings_{file_};
  UserManager users_{settings_, *device_, api_};
};

TEST_F(UserManagerTest, ALogoutThatCannotBeToldOutlivesTheDaemon) {
  Bind({{"userId", "u1"}, {"userName", "Ada"}});
  users_.NotifyLogout("cn");
  EXPECT_FALSE(users_.CheckUserRecordsHTTP("cn", false)) << "the cloud does not take the unbinding";
  EXPECT_FALSE(users_.TakeLogoutToTell("int"));
  EXPECT_EQ(users_.TakeLogoutToTell("cn"), (CloudUser{"u1", "Ada"}));
  EXPECT_FALSE(users_.TakeLogoutToTell("cn")) << "once a logout";

  AgentSettings settings(file_);
  UserManager users(settings, *device_, api_);
  users.LoadConfig();
  EXPECT_TRUE(settings.Get().logouts.contains("cn"));
  Answer("/api/device/connect/unbind", Good(true));
  EXPECT_TRUE(users.CheckUserRecordsHTTP("cn", false));
  EXPECT_THAT(LastRequest(), HasSubstr(R"({"userId":"u1"})"));
  EXPECT_EQ(settings.Get(), AgentConfig{.region = "cn"});
}

TEST_F(UserManagerTest, ALogoutDuringACheckIsNotLost) {
  Bind({{"userId", "u1"}, {"userName", "Ada"}});
  Answer("/api/device/connect/unbind", Good(true));
  on_request_ = [&](const std::string& request) {
    if (request.find("/relation") != std::string::npos) users_.NotifyLogout("cn");
  };
  EXPECT_TRUE(users_.CheckUserRecordsHTTP("cn", false));
  EXPECT_THAT(LastRequest(), HasSubstr("/unbind"));
  on_request_ = [&](const std::string& request) {
    if (request.find("/unbind") != std::string::npos) users_.NotifyLogout("cn");
  };
  users_.NotifyLogout("cn");
  EXPECT_TRUE(users_.CheckUserRecordsHTTP("cn", false)) << "nobody known, so whoever is bound";
  EXPECT_THAT(LastRequest(), HasSubstr("/unbind"));
}

TEST_F(UserManagerTest, WhoIsBoundIsTakenOverAndNobodyElseIsLoggedOut) {
  users_.NotifyLogout("cn");
  Bind({{"userId", "u2"}, {"userName", nullptr}});
  EXPECT_TRUE(users_.CheckUserRecordsHTTP("cn", false)) << "another one has bound it meanwhile";
  EXPECT_EQ(settings_.Get().user, (CloudUser{"u2", ""}));
  EXPECT_TRUE(settings_.Get().logouts.empty());
  for (const json& broken :
       {json("u3"), json{{"userId", 3}}, json{{"userId", std::string(300, 'u')}}}) {
    Bind(broken);
    EXPECT_FALSE(users_.CheckUserRecordsHTTP("cn", false)) << broken;
  }
  EXPECT_EQ(settings_.Get().user.id, "u2");
  Bind(nullptr);
  EXPECT_TRUE(users_.CheckUserRecordsHTTP("cn", true));
  EXPECT_EQ(settings_.Get().user, CloudUser());
}

TEST_F(UserManagerTest, TheStatusIsToldThreeTimesAtMostAndNeverWithoutAToken) {
  const size_t before = server_.requests.Items().size();
  EXPECT_FALSE(users_.UpdateDeviceStatus("cn", 0));
  EXPECT_EQ(server_.requests.Items().size(), before + 3);
  device_->ForgetTokens();
  EXPECT_FALSE(users_.UpdateDeviceStatus("cn", 0));
  EXPECT_EQ(server_.requests.Items().size(), before + 3);
}

TEST_F(UserManagerTest, AReportThatIsOlderThanAllTokensIsSentWhenThereIsOne) {
  device_->ForgetTokens();
  std::atomic<bool> may_send = false;
  ClientLog log(*device_, "/log", [&] { return may_send.load(); });
  log.PostClientLog("ERROR", "NETWORK_UNREACHABLE");
  Answer("/log", Good(nullptr));
  may_send = device_->GetAccessToken(25);
  EXPECT_TRUE(test::Eventually([&] {
    clock_.Advance(std::chrono::seconds(1));
    return LastRequest().find(R"("message":"NETWORK_UNREACHABLE")") != std::string::npos;
  }));
}

TEST(AgentSettingsTest, EachBrokenValueHasItsDefault) {
  const test::LogCapture log;
  const test::TempDir dir;
  AgentSettings settings(dir.Write("c.json",
                                   R"({"region":"cn","link_mode":"both","name":7,"user":[],)"
                                   R"("logouts":{"int":{"id":"u"},"cn":3},"reset":true})"));
  settings.Load();
  AgentConfig expected{.region = "cn", .logouts = {{"int", {"u", ""}}, {"cn", {}}}, .reset = true};
  EXPECT_EQ(settings.Get(), expected);
  EXPECT_EQ(log.Lines().size(), 4U) << log.Text();
  for (const char* broken : {"", "[", "[]", "null"}) {
    AgentSettings none(dir.Write("d.json", broken));
    none.Change([](AgentConfig& config) { config.name = "kept"; });
    AgentSettings again(dir / "d.json");
    again.Load();
    EXPECT_EQ(again.Get(), AgentConfig{.name = "kept"}) << broken;
  }
  const std::string huge(100'000, ' ');
  AgentSettings refused(dir.Write("e.json", huge));
  refused.Load();
  refused.Change([](AgentConfig& config) { config.name = "kept"; });
  EXPECT_EQ(test::ReadFile(dir / "e.json.bad"), huge);
  AgentSettings again(dir / "e.json");
  again.Load();
  EXPECT_EQ(again.Get(), AgentConfig{.name = "kept"});
}

TEST(TcpProbeTest, TellsWhyNothingAnswers) {
  const TcpProbe probe([] { return false; });
  test::ScriptedServer server([](const auto&, const auto&) { return false; });
  const std::string port = server.Url("").substr(std::string("http://127.0.0.1:").size());
  EXPECT_EQ(probe("127.0.0.1", port).error, "");
  EXPECT_EQ(probe("127.0.0.1", "1").error, "TCP connection failed: Connection refused");
  const ProbeResult unknown = probe("no-such-host.invalid", "443");
  EXPECT_EQ(unknown.error, "DNS resolution failed: " + unknown.look_up_error);
  EXPECT_NE(unknown.look_up_error, "");
}

}  // namespace
}  // namespace varnel::service

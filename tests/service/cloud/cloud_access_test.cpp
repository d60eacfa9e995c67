#include "service/cloud/cloud_access.h"

#include <gmock/gmock.h>

#include "service/agent/agent_world.h"
#include "service/agent/authentication_world.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using test::ScriptedServer;
using testing::HasSubstr;

constexpr const char* kPath = "/api/upload/create";
constexpr const char* kPost = "POST /api/upload/create";

class CloudAccessTest : public testing::Test {
 protected:
  CloudAccessTest() {
    world_.setup_.places.local_server = server_.Url("").substr(7);
    authentication_ = world_.Device();
    access_.SetSource({{std::shared_ptr<void>(), &agent_.agent()}, authentication_});
  }
  /// The server gives out the tokens t1, t2, ... and takes the one that `good_` names.
  bool Answer(const std::string& request, const ScriptedServer::Peer& peer) {
    if (request.starts_with("POST /api/oauth2")) {
      const std::string number = std::to_string(++issued_);
      return peer.Answer(AuthenticationWorld::TokenReply("t" + number, "r" + number).dump());
    }
    const bool good = request.find("Authorization: Bearer " + good_ + "\r\n") != request.npos;
    return good ? peer.Answer("taken") : peer.Answer("refused", refusal_);
  }
  size_t Posts() const {
    const auto all = server_.requests.Items();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [](const auto& request) { return request.starts_with(kPost); }));
  }
  bool Logged(const std::string& text) const { return agent_.log.Has("CLDI", text); }

  AuthenticationWorld world_;
  AgentWorld agent_;
  std::atomic<int> issued_ = 0;
  std::string good_ = "t2";
  std::string refusal_ = "401 Unauthorized";
  mutable ScriptedServer server_{
      [this](const auto& request, const auto& peer) { return Answer(request, peer); }};
  std::shared_ptr<DeviceAuthentication> authentication_;
  CloudAccess access_{nullptr};
};

TEST_F(CloudAccessTest, NothingIsSentWithoutTheRightToIt) {
  EXPECT_EQ(access_.Post(kPath, {}), "");
  EXPECT_TRUE(Logged("Get access: agent not connected."));
  EXPECT_TRUE(Logged("API is unavailable."));
  agent_.Walk(AgentState::CONNECTED);
  EXPECT_EQ(access_.GetAccess(), -1);
  EXPECT_TRUE(Logged("Get access: token is empty."));
  ASSERT_TRUE(authentication_->GetAccessToken(25));
  EXPECT_EQ(access_.GetAccess(), 0);
  EXPECT_EQ(access_.Post("http://other.test/api", {}), "") << "the token is not for others";
  agent_.agent().SetLinkMode("lan");
  agent_.PassTimes(1);
  EXPECT_EQ(access_.Post(kPath, {}), "") << "what was found before is no more worth";
  access_.SetSource({});
  EXPECT_EQ(access_.GetAccess(), -1);
  EXPECT_TRUE(Logged("Get access: agent not set."));
  EXPECT_EQ(Posts(), 0U);
}

TEST_F(CloudAccessTest, ManyThatAreRefusedMakeOneNewTokenAndEachIsAnswered) {
  agent_.Walk(AgentState::CONNECTED);
  ASSERT_TRUE(authentication_->GetAccessToken(25));
  OnEightThreads([&] { EXPECT_EQ(access_.Post(kPath, {{"n", 1}}), "taken"); });
  EXPECT_EQ(issued_, 2) << "the first one and one for all";
  EXPECT_THAT(server_.requests.Items().back(), HasSubstr("X-Custom-CS: prod-other"));
}

TEST_F(CloudAccessTest, AnotherRegionsAccessIsNotUsedForThisOne) {
  agent_.Walk(AgentState::CONNECTED);
  good_ = "t1";
  ASSERT_TRUE(authentication_->GetAccessToken(25));
  EXPECT_EQ(access_.Post(kPath, {}), "taken");
  authentication_->SetRegion("int");
  EXPECT_EQ(access_.Post(kPath, {}), "") << "there is no token for it yet";
  EXPECT_EQ(Posts(), 1U);
}

TEST_F(CloudAccessTest, ASecondRefusalIsTheAnswer) {
  agent_.Walk(AgentState::CONNECTED);
  ASSERT_TRUE(authentication_->GetAccessToken(25));
  good_ = "none";
  refusal_ = "403 Forbidden";
  EXPECT_EQ(access_.Post(server_.Url(kPath), {}), "refused");
  EXPECT_EQ(Posts(), 2U);
}

}  // namespace
}  // namespace varnel::service

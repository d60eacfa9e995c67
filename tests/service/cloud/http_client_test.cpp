#include "service/cloud/http/http_client.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "service/cloud/http/reply_json.h"
#include "service/cloud/scripted_server.h"
#include "support/log_capture.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using test::ScriptedServer;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

bool Echo(const std::string& request, const ScriptedServer::Peer& peer) {
  return peer.Answer(request.substr(request.find("\r\n\r\n") + 4));
}

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(all, {}));
}

class HttpClientTest : public testing::Test {
 protected:
  static utils::SharedSecret Secret(const char* text) {
    return std::make_shared<utils::SecretString>(text);
  }
  static HttpSettings Settings() {
    HttpSettings settings;
    settings.bearer_token = Secret("tok-en");
    settings.headers = {"X-One: 1"};
    return settings;
  }
  test::LogCapture log_;
};

TEST_F(HttpClientTest, RequestsCarryWhatTheSettingsAndTheCallSay) {
  ScriptedServer server(Echo);
  HttpClient client(Settings());
  const HttpResponse null = client.Post(server.Url("/a"), nullptr, {"X-Two: 2"});
  EXPECT_EQ(null.status, 200);
  EXPECT_EQ(null.body, "{}");
  EXPECT_EQ(client.Post(server.Url(), {{"k", "\xff\n"}}).body, "{\"k\":\"\uFFFD\\n\"}");
  const std::string binary("a\0b\r\n", 5);
  EXPECT_EQ(client.PostRaw(server.Url(), binary, "text/x").body, binary);
  (void)client.Get(server.Url("/g"),
                   {{"a b", "ü&=\"?"}, {"n", 1.5}, {"b", true}, {"s", ""}, {"z", nullptr}},
                   {"X-Empty: "}, Secret("other"));
  (void)client.Get(server.Url("/g"), json::object());
  const auto requests = server.requests.Items();
  EXPECT_THAT(requests[0], StartsWith("POST /a HTTP/1.1\r\n"));
  EXPECT_THAT(requests[0], HasSubstr("\r\nAuthorization: Bearer tok-en\r\nX-One: 1\r\nX-Two: 2\r\n"
                                     "Content-Type: application/json\r\n"));
  EXPECT_THAT(requests[2], HasSubstr("Content-Type: text/x\r\nContent-Length: 5\r\n"));
  EXPECT_THAT(requests[3], StartsWith("GET /g?a%20b=%C3%BC%26%3D%22%3F&b=true&n=1.5&s=&z=null "));
  EXPECT_THAT(requests[3], HasSubstr("Authorization: Bearer other\r\nX-One: 1\r\nX-Empty:\r\n"));
  EXPECT_THAT(requests[4], StartsWith("GET /g HTTP"));
  EXPECT_EQ(server.connections.Items().size(), 1U) << "it is kept";
  EXPECT_THAT(log_.Text(), Not(HasSubstr("127.0.0.1")));
  const std::string tag = fmt::format("{:016x}", std::hash<std::string>{}(server.Url("/a")));
  EXPECT_THAT(log_.Text(), HasSubstr("] POST [" + tag + "] -> HTTP 200, body_len=2, "));
}

TEST_F(HttpClientTest, WhatCannotBeSentOpensNoConnection) {
  ScriptedServer server(Echo);
  HttpClient client(Settings());
  EXPECT_EQ(client.PostRaw(server.Url(), "x", "").status, 0);
  EXPECT_TRUE(log_.Has("HTTP", "PostRaw: content_type must not be empty"));
  for (const json& params : {json(nullptr), json::array(), json("s"), json(1), json(true)}) {
    EXPECT_EQ(client.Get(server.Url(), params).status, 0);
    EXPECT_TRUE(log_.Has(
        "HTTP", std::string("Get: params must be a JSON object, got ") + params.type_name()));
  }
  for (const std::string& header :
       {std::string("X: a\r\nY: b"), std::string("X: a\nb"), std::string("X: \0", 4)})
    EXPECT_EQ(client.Post(server.Url(), {}, {header}).status, 0);
  for (const std::string& path :
       {std::string("/\0a", 3), std::string("/a b"), std::string("/\r\nX: 1")})
    EXPECT_EQ(client.Post(server.Url(path), {}).status, 0);
  EXPECT_EQ(client.Post("file:///etc/hostname", {}).status, 0);
  EXPECT_EQ(client.Post(server.Url(), {}, {}, Secret("a\r\nX: 1")).status, 0);
  EXPECT_TRUE(server.connections.Items().empty());
}

TEST_F(HttpClientTest, AnswersAreTakenAsTheyAreAndRedirectsNotFollowed) {
  ::setenv("ALL_PROXY", "http://127.0.0.1:9", 1);
  ScriptedServer server([](const std::string& request, const ScriptedServer::Peer& peer) {
    if (request.starts_with("GET /away"))
      return peer.Send("HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 2\r\n\r\nno");
    if (request.starts_with("GET /trailer")) {
      return peer.Send(
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\nX: 1\r\n\r\n");
    }
    return peer.Answer("down", "503 Busy");
  });
  HttpClient client;
  EXPECT_EQ(client.Get(server.Url("/away"), json::object()).status, 302);
  EXPECT_EQ(client.Get(server.Url("/trailer"), json::object()).body, "ab");
  const HttpResponse busy = client.Get(server.Url(), json::object());
  ::unsetenv("ALL_PROXY");
  EXPECT_EQ(busy.status, 503);
  EXPECT_EQ(busy.body, "down");
  EXPECT_EQ(server.requests.Items().size(), 3U);
}

TEST_F(HttpClientTest, AFaultAtAnyByteIsAFailureWithoutATrace) {
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\n" + std::string(40, 'x');
  std::atomic<size_t> offset = 0;
  ScriptedServer server([&](const std::string&, const ScriptedServer::Peer& peer) {
    (void)peer.Send(answer.substr(0, offset));
    if (offset % 2 == 0) peer.ResetAtEnd();
    return false;
  });
  HttpClient client;
  const size_t before = OpenDescriptors();
  for (int i = 0; i < 1000; ++i) {
    offset = static_cast<size_t>(i) % answer.size();
    const HttpResponse response = client.Post(server.Url(), {});
    ASSERT_EQ(response.status, 0) << offset;
    ASSERT_EQ(response.body, "");
  }
  EXPECT_LE(OpenDescriptors(), before + 2) << "the sockets of one connection";
  EXPECT_THAT(log_.Lines().back(), EndsWith(" (http_code=0)"));
}

TEST_F(HttpClientTest, AnAnswerWithoutEndIsGivenUp) {
  for (const bool headers : {true, false}) {
    std::string start = "HTTP/1.1 200 OK\r\n";
    if (!headers) start += "\r\n";
    ScriptedServer server([&](const std::string&, const ScriptedServer::Peer& peer) {
      bool taken = peer.Send(start);
      while (taken) taken = peer.Send("X-Header: " + std::string(1000, 'x') + "\r\n");
      return false;
    });
    HttpSettings settings;
    settings.max_body_bytes = 100'000;
    HttpClient client(std::move(settings));
    EXPECT_EQ(client.Get(server.Url(), json::object()).status, 0);
    EXPECT_THAT(log_.Text(), HasSubstr(std::string(": the ") +
                                       (headers ? "headers are" : "body is") + " too long ("));
  }
}

TEST_F(HttpClientTest, ASilentServerIsLeftAtTheTimeOutOrAtTheStop) {
  std::atomic<bool> stop = false;
  ScriptedServer server([&](const std::string& request, const ScriptedServer::Peer& peer) {
    stop = request.starts_with("POST /stop");
    peer.AwaitEnd();
    return false;
  });
  HttpSettings settings;
  settings.timeout_s = 1;
  EXPECT_EQ(HttpClient(std::move(settings)).Post(server.Url(), {}).status, 0);
  EXPECT_THAT(log_.Text(), HasSubstr("timed out"));
  HttpSettings endless;
  endless.timeout_s = 0;
  HttpClient stopped(std::move(endless), [&] { return stop.load(); });
  EXPECT_EQ(stopped.Post(server.Url("/stop"), {}).status, 0);
  const size_t before = server.requests.Items().size();
  EXPECT_EQ(stopped.Post(server.Url("/stop"), {}).status, 0);
  EXPECT_EQ(server.requests.Items().size(), before) << "nothing begins after the stop";
}

TEST_F(HttpClientTest, AnExceptionOfTheStopLeavesAClientThatWorks) {
  ScriptedServer server(Echo);
  bool throws = false;
  HttpClient client({}, [&] { return throws ? throw std::runtime_error("stop") : false; });
  throws = true;
  EXPECT_THROW((void)client.Post(server.Url(), {}), std::runtime_error);
  throws = false;
  EXPECT_EQ(client.Post(server.Url(), {}).body, "{}");
}

TEST_F(HttpClientTest, ManyThreadsShareTheConnections) {
  ScriptedServer server(Echo);
  HttpClient client;
  HttpSettings once;
  once.post_once = true;
  HttpClient careful(std::move(once));
  {
    std::vector<std::jthread> threads(8);
    for (std::jthread& thread : threads) {
      thread = std::jthread([&] {
        for (int n = 0; n < 20; ++n) EXPECT_EQ(client.Post(server.Url(), {{"n", n}}).status, 200);
      });
    }
  }
  EXPECT_EQ(server.connections.Items().size(), 1U);
  for (int n = 0; n < 3; ++n) EXPECT_EQ(careful.Post(server.Url(), {}).status, 200);
  EXPECT_EQ(server.connections.Items().size(), 4U) << "no kept one can die under a POST";
}

TEST(ParseReplyTest, WhatWouldTakeTooMuchIsRefused) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(ParseReply(nested(64)));
  EXPECT_FALSE(ParseReply(nested(65)));
  EXPECT_FALSE(ParseReply(std::string(8'000'000, '[')));
  std::string wide = "[0";
  for (int i = 0; i < 99'998; ++i) wide += ",0";
  EXPECT_TRUE(ParseReply(wide + "]"));
  EXPECT_FALSE(ParseReply(wide + ",0]"));
  for (const char* bad : {"", "{", "[1,]", "nan", "{} x"}) EXPECT_FALSE(ParseReply(bad)) << bad;
}

}  // namespace
}  // namespace varnel::service

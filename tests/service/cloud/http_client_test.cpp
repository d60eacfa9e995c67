#include "service/cloud/http/http_client.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

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
  HttpSettings Settings() {
    HttpSettings settings;
    settings.bearer_token = [this] { return std::make_shared<utils::SecretString>(token_); };
    settings.headers = {"X-One: 1"};
    return settings;
  }
  std::string token_ = "tok-en";
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
  token_ = "";
  (void)client.Get(server.Url("/g"),
                   {{"a b", "ü&=\"?"}, {"n", 1.5}, {"b", true}, {"s", ""}, {"z", nullptr}});
  (void)client.Get(server.Url("/g"), json::object());
  const auto requests = server.requests.Items();
  EXPECT_THAT(requests[0], StartsWith("POST /a HTTP/1.1\r\n"));
  EXPECT_THAT(requests[0], HasSubstr("\r\nAuthorization: Bearer tok-en\r\nX-One: 1\r\nX-Two: 2\r\n"
                                     "Content-Type: application/json\r\n"));
  EXPECT_THAT(requests[2], HasSubstr("Content-Type: text/x\r\nContent-Length: 5\r\n"));
  EXPECT_THAT(requests[3], StartsWith("GET /g?a%20b=%C3%BC%26%3D%22%3F&b=true&n=1.5&s=&z=null "));
  EXPECT_THAT(requests[3], Not(HasSubstr("Authorization")));
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
  token_ = "a\r\nX: 1";
  EXPECT_EQ(client.Post(server.Url(), {}).status, 0);
  EXPECT_TRUE(server.connections.Items().empty());
}

TEST_F(HttpClientTest, AnswersAreTakenAsTheyAreAndRedirectsNotFollowed) {
  ::setenv("ALL_PROXY", "http://127.0.0.1:9", 1);
  ScriptedServer server([](const std::string& request, const ScriptedServer::Peer& peer) {
    if (request.starts_with("GET /away"))
      return peer.Send("HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 2\r\n\r\nno");
    return peer.Answer("down", "503 Busy");
  });
  HttpClient client;
  EXPECT_EQ(client.Get(server.Url("/away"), json::object()).status, 302);
  const HttpResponse busy = client.Get(server.Url(), json::object());
  ::unsetenv("ALL_PROXY");
  EXPECT_EQ(busy.status, 503);
  EXPECT_EQ(busy.body, "down");
  EXPECT_EQ(server.requests.Items().size(), 2U);
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
  ScriptedServer server([](const std::string&, const ScriptedServer::Peer& peer) {
    peer.AwaitEnd();
    return false;
  });
  HttpSettings settings;
  settings.timeout_s = 1;
  EXPECT_EQ(HttpClient(std::move(settings)).Post(server.Url(), {}).status, 0);
  EXPECT_THAT(log_.Text(), HasSubstr("timed out"));
  HttpSettings endless;
  endless.timeout_s = 0;
  HttpClient stopped(std::move(endless), [&] { return server.requests.Items().size() == 2; });
  const HttpResponse response = stopped.Post(server.Url(), {});
  EXPECT_EQ(response.status, 0);
  EXPECT_LT(response.elapsed_ms, 2500);
}

}  // namespace
}  // namespace varnel::service

#include "service/agent/auth/device_authentication.h"

#include <gmock/gmock.h>

#include "service/agent/auth/device_api.h"
#include "service/agent/auth/signature.h"
#include "service/agent/authentication_world.h"
#include "utils/base64.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kToken = "/api/oauth2/token";
constexpr const char* kCerts = "/api/device/getMqttCert";

class DeviceAuthenticationTest : public testing::Test, public AuthenticationWorld {
 protected:
  /// One reply, and what the log says of it.
  struct Fault {
    std::string reply;
    const char* text;
  };
  static std::string Token(const DeviceAuthentication& device) {
    const auto access = device.AccessTo(device.Region());
    return access && access->token ? std::string(access->token->Text()) : "";
  }
  std::unique_ptr<DeviceAuthentication> Connected() {
    Answer(kToken, TokenReply("access-1", "refresh-1"));
    Answer(kCerts, CertsReply());
    auto device = Device();
    EXPECT_TRUE(device->GetAccessToken(25));
    return device;
  }
};

TEST_F(DeviceAuthenticationTest, ADeviceGrantIsSentAsTheServerExpectsIt) {
  const auto device = Connected();
  std::string request = LastRequest();
  // Both are other ones each time.
  const auto take = [&request](const std::string& name) {
    const size_t start = request.find("name=\"" + name + "\"\r\n\r\n") + name.size() + 11;
    const size_t end = request.find("\r\n", start);
    std::string value = request.substr(start, end - start);
    request.replace(start, end - start, "?");
    return value;
  };
  const std::string signature = take("sign");
  const std::string nonce = take("nonce");
  const std::string key = OpenSsl(dir_, "pkey -in key.pem -pubout -outform DER");
  EXPECT_TRUE(Verify("VB26&nonce=" + nonce, signature,
                     {reinterpret_cast<const unsigned char*>(key.data()), key.size()}));
  std::string golden;
  const std::pair<const char*, const char*> fields[] = {{"grant_type", "tarvolent_device"},
                                                        {"sign", "?"},
                                                        {"sn", "VB26"},
                                                        {"nonce", "?"},
                                                        {"refresh", "false"},
                                                        {"scope", "mqtt"},
                                                        {"total_pt", "25"},
                                                        {"ver", "1.1.1"}};
  for (const auto& [name, value] : fields) {
    golden += "------WebKitFormBoundary7MA4YWxkTrZu0gW\r\nContent-Disposition: form-data; name=\"" +
              std::string(name) + "\"\r\n\r\n" + value + "\r\n";
  }
  golden += "------WebKitFormBoundary7MA4YWxkTrZu0gW--\r\n";
  EXPECT_THAT(request, testing::EndsWith("\r\n\r\n" + golden));
  EXPECT_THAT(request, StartsWith("POST /api/oauth2/token HTTP/1.1\r\n"));
  EXPECT_THAT(request, HasSubstr("X-Custom-Site: Device\r\nX-Custom-Firmware-Version: 1.1.1\r\n"));
  EXPECT_THAT(request, HasSubstr("X-Custom-CS: prod-other\r\nContent-Type: multipart/form-data; "
                                 "boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW\r\n"));
  EXPECT_EQ(Token(*device), "access-1");
  device->SetRegion("nowhere");
  EXPECT_TRUE(
      log_.Has("MA_AUTH", "SetRegion: region is not valid: nowhere, using default region: int"));
  EXPECT_EQ(Token(*device), "") << "it was that of another region";
}

TEST_F(DeviceAuthenticationTest, ATokenReplyThatIsWrongLeavesTheOldTokens) {
  const auto device = Connected();
  const Fault grant[] = {
      {"[]", "invalid OAuth2 content!"},
      {"{", "invalid OAuth2 content!"},
      {"{}", "no 'code' field or not a number in OAuth2 content!"},
      {R"({"code":"200"})", "no 'code' field or not a number in OAuth2 content!"},
      {R"({"code":500})", "invalid code in OAuth2 content: 500"},
      {R"({"code":200})", "no 'data' field in OAuth2 content!"},
      {R"({"code":200,"data":{}})", "empty data in OAuth2 content!"},
      {R"({"code":200,"data":"x"})", "invalid access_token!"},
      {R"({"code":200,"data":{"access_token":1}})", "invalid access_token!"},
      {R"({"code":200,"data":{"access_token":"a\r\nX: 1","refresh_token":"r"}})",
       "invalid access_token!"},
      {R"({"code":200,"data":{"access_token":"a","refresh_token":"\u0000"}})",
       "invalid refresh_token!"},
      {R"({"code":200,"data":{"access_token":")" + std::string(8193, 'a') + "\"}}",
       "invalid access_token!"},
      {R"({"code":200,"data":{"access_token":"a"}})", "invalid refresh_token!"},
      {R"({"code":200,"data":{"access_token":"a","refresh_token":""}})",
       "refresh_token is empty!"}};
  for (const Fault& fault : grant) {
    Answer(kToken, fault.reply);
    EXPECT_FALSE(device->GetAccessToken(25));
    EXPECT_TRUE(log_.Has("MA_AUTH", fault.text)) << fault.reply;
    EXPECT_FALSE(device->IsRegionLocked());
  }
  Answer(kToken, json{{"code", 602013}});
  EXPECT_FALSE(device->GetAccessToken(25));
  EXPECT_TRUE(device->IsRegionLocked());
  const Fault refresh[] = {
      {"7", "Failed to parse access token: the reply is no JSON object"},
      {"{}", "No 'data' field in AccessToken response"},
      {R"({"data":{"refresh_token":"r"}})", "No 'access_token' field in AccessToken data"},
      {R"({"data":{"access_token":"a"}})", "No 'refresh_token' field in AccessToken data"},
      {R"({"data":{"access_token":"","refresh_token":"r"}})",
       "Empty access token or refresh token"}};
  for (const Fault& fault : refresh) {
    Answer(kToken, fault.reply);
    EXPECT_FALSE(device->RefreshToken(nullptr));
    EXPECT_TRUE(log_.Has("MA_AUTH", fault.text)) << fault.reply;
  }
  EXPECT_EQ(Token(*device), "access-1");
}

TEST_F(DeviceAuthenticationTest, ARefreshHappensOnceForAllWhoMetTheSameRefusal) {
  const auto device = Connected();
  const auto refused = device->AccessTo("cn")->token;
  Answer(kToken, TokenReply("access-2", "refresh-2"));
  const size_t before = server_.requests.Items().size();
  OnEightThreads([&] { EXPECT_TRUE(device->RefreshToken(refused)); });
  EXPECT_EQ(server_.requests.Items().size(), before + 1);
  EXPECT_THAT(LastRequest(), HasSubstr("name=\"refresh_token\"\r\n\r\nrefresh-1\r\n"));
  EXPECT_EQ(Token(*device), "access-2");
  // One that fails is one for all who waited for it.
  const auto newer = device->AccessTo("cn")->token;
  Answer(kToken, json::array());
  OnEightThreads([&] { EXPECT_FALSE(device->RefreshToken(newer)); });
  EXPECT_LT(server_.requests.Items().size(), before + 9);
  device->ForgetTokens();
  const size_t last = server_.requests.Items().size();
  EXPECT_FALSE(device->RefreshToken(newer));
  EXPECT_EQ(server_.requests.Items().size(), last) << "there is nothing to ask with";
  for (const char* secret : {"access-", "refresh-1", "refresh-2"})
    EXPECT_THAT(log_.Text(), Not(HasSubstr(secret)));
}

TEST_F(DeviceAuthenticationTest, CredentialsAreFetchedOnceAndThenTakenFromTheDisk) {
  const auto device = Connected();
  EXPECT_FALSE(device->AuthInfo());
  ASSERT_TRUE(device->GetAuthInfo());
  EXPECT_THAT(LastRequest(), StartsWith("GET /api/device/getMqttCert?refresh=true HTTP"));
  EXPECT_THAT(LastRequest(), HasSubstr("Authorization: Bearer access-1\r\nX-Custom-Site: Device\r\n"
                                       "X-Custom-Firmware-Version: 2.0.1\r\nX-Custom-CC:\r\n"
                                       "X-Custom-CS: prod-other\r\n"));
  EXPECT_EQ((*device->AuthInfo())["region"], "cn");
  EXPECT_EQ(test::ReadFile(dir_ / "certs/client.key"), identity_.key);
  const size_t before = server_.requests.Items().size();
  ASSERT_TRUE(Device()->GetAuthInfo());
  EXPECT_EQ(server_.requests.Items().size(), before);
  EXPECT_TRUE(log_.Has("MA_AUTH", "Using cached auth info, skipping GetMqttCerts"));
  clock_.Advance(std::chrono::hours(48));
  ASSERT_TRUE(Device()->GetAuthInfo());
  EXPECT_THAT(LastRequest(), StartsWith("GET /api/device/getMqttCert?refresh=true HTTP"));
  EXPECT_TRUE(log_.Has("MA_AUTH", "Client certificate expired, refresh CA!"));
  device->RemoveClientCertificates();
  EXPECT_FALSE(device->AuthInfo());
}

TEST_F(DeviceAuthenticationTest, CredentialsThatAreWrongAreNotWritten) {
  const auto device = Connected();
  const json good = CertsReply();
  const auto with = [&good](const char* name, json value) {
    json reply = good;
    reply["data"][name] = std::move(value);
    return reply.dump();
  };
  const json clear = identity_.certificate + identity_.certificate;
  const Identity other = MakeIdentity(dir_, "EC");
  const std::string huge(1'000'000, 'x');
  const std::string nul("a\0b", 3);
  const Fault faults[] = {
      {"7", "GetMqttCerts: invalid response: 1 bytes, HTTP 200"},
      {R"({"code":500})", "GetMqttCerts: unexpected code: 500"},
      {R"({"code":200})", "GetMqttCerts: invalid data field: none"},
      {with("clientId", ""), "invalid clientid!"},
      {with("clientId", "a\nb"), "invalid clientid!"},
      {with("clientId", huge), "invalid clientid!"},
      {with("endpoint", 7), "invalid endpoint!"},
      {with("endpoint", "a\r\nb"), "invalid endpoint!"},
      {with("endpoint", "a:1"), "invalid endpoint!"},
      {with("endpoint", nul), "invalid endpoint!"},
      {with("endpoint", ""), "endpoint/clientid/port is empty!"},
      {with("port", "-1"), "invalid port!"},
      {with("port", 99999), "invalid port!"},
      {with("port", ""), "endpoint/clientid/port is empty!"},
      {with("secretId", nullptr), "invalid client CA"},
      {with("secretId", clear), "invalid client CA"},
      {with("secretId", good["data"]["secretKey"]), "invalid data in CA content!"},
      {with("secretKey", "AAAA"), "invalid client key"},
      {with("secretKey", good["data"]["secretId"]), "invalid client key"}};
  for (const Fault& fault : faults) {
    Answer(kCerts, fault.reply);
    EXPECT_FALSE(device->GetAuthInfo());
    EXPECT_TRUE(log_.Has("MA_AUTH", fault.text)) << fault.text;
    EXPECT_FALSE(std::filesystem::exists(dir_ / "certs/client.cert")) << fault.text;
  }
}

TEST_F(DeviceAuthenticationTest, TheCountryCodeIsTwoCapitals) {
  const auto device = Device();
  Answer("/cc", json{{"countryCode", "de\r\n"}});
  device->StartFetchCountryCode();
  for (int pause = 0; pause < 2; ++pause) {
    clock_.AwaitWaiters(1);
    clock_.Advance(std::chrono::seconds(5));
    EXPECT_TRUE(test::Eventually(
        [&] { return log_.Has("MA_AUTH", fmt::format("cc attempt {}/3 failed", pause + 2)); }));
  }
  Answer("/cc", json{{"code", 200}, {"data", {{"countryCode", "DE"}}}});
  EXPECT_TRUE(test::Eventually([&] {
    device->StartFetchCountryCode();
    return device->DeviceHeaders("")[2] == "X-Custom-CC: DE";
  }));
}

TEST_F(DeviceAuthenticationTest, EachCallOfTheApiSendsAndReadsItsOwn) {
  const auto device = Connected();
  int disconnected = 0;
  DeviceApi api(*device, 401, [&] { ++disconnected; });
  const std::string region = "cn";
  struct Case {
    const char* name;
    const char* request;  ///< its first line
    json body;
    json data;  ///< of a good reply
    const char* bad_data;
    std::function<json(const std::string& region)> call;
  };
  const auto value = [](const auto& result) { return result ? json(*result) : json(); };
  const json query = {{"id", 7}};
  const Case cases[] = {
      {"ApiDeviceUpdate",
       "POST /api/device/update",
       {{"name", "n"}, {"online", 1}},
       nullptr,
       nullptr,
       [&](const auto& at) {
         return api.ApiDeviceUpdate(at, {{"name", "n"}, {"online", 1}}) ? json(true) : json();
       }},
      {"ApiDeviceConnectCode",
       "POST /api/device/connect/code",
       query,
       {{"code", "pair"}},
       "invalid data: null",
       [&](const auto& at) { return value(api.ApiDeviceConnectCode(at, query)); }},
      {"ApiDeviceConnectUnbind",
       "POST /api/device/connect/unbind",
       {{"userId", "u"}},
       "ok",
       "invalid data: null",
       [&](const auto& at) { return api.ApiDeviceConnectUnbind(at, "u") ? json(true) : json(); }},
      {"ApiDeviceConnectRelation", "GET /api/device/connect/relation HTTP", nullptr, "r", nullptr,
       [&](const auto& at) { return value(api.ApiDeviceConnectRelation(at)); }},
      {"ApiDeviceFirmwareLatest", "GET /api/device/firmware/latest?id=7", nullptr, "f",
       "unexpected response: null",
       [&](const auto& at) { return value(api.ApiDeviceFirmwareLatest(at, query)); }},
      {"UrlAuthorize",
       "POST /api/device/download/authorize",
       {{"url", "u"}},
       "signed",
       "unexpected response format: null",
       [&](const auto& at) { return value(api.UrlAuthorize(at, "u")); }},
      {"ApiDevicePrintGet", "GET /api/device/print?id=7", nullptr, "t", "unexpected response: null",
       [&](const auto& at) { return value(api.ApiDevicePrintGet(at, query)); }},
      {"ApiDevicePrint", "POST /api/device/print", query, nullptr, nullptr,
       [&](const auto& at) { return value(api.ApiDevicePrint(at, query)); }}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    const size_t before = server_.requests.Items().size();
    EXPECT_EQ(one.call("mars"), json());
    EXPECT_EQ(server_.requests.Items().size(), before) << "an unknown region";
    EXPECT_THAT(log_.Text(), HasSubstr(std::string(one.name) + ": invalid region: mars"));
    Answer("/api/device/", json{{"code", 200}, {"data", one.data}});
    EXPECT_NE(one.call(region), json());
    const std::string request = LastRequest();
    EXPECT_THAT(request, StartsWith(one.request));
    EXPECT_THAT(request, HasSubstr("Authorization: Bearer access-1\r\n"));
    const std::string body = request.substr(request.find("\r\n\r\n") + 4);
    EXPECT_EQ(body, one.body.is_null() ? "" : one.body.dump());
    for (const char* wrong : {"[]", "{", R"({"code":"200"})", "{}"}) {
      const size_t lines = log_.Lines().size();
      Answer("/api/device/", std::string(wrong));
      EXPECT_EQ(one.call(region), json()) << wrong;
      EXPECT_THAT(log_.Lines().back(), HasSubstr(one.name)) << wrong;
      EXPECT_GT(log_.Lines().size(), lines);
    }
    if (one.bad_data == nullptr) continue;
    Answer("/api/device/", json{{"code", 200}, {"data", nullptr}});
    EXPECT_EQ(one.call(region), json());
    EXPECT_TRUE(log_.Has("MA_AUTH", std::string(one.name) + ": " + one.bad_data));
  }
  Answer("/api/device/", json{{"code", 401}});
  EXPECT_FALSE(api.ApiDeviceConnectUnbind(region, "u"));
  EXPECT_EQ(disconnected, 1);
  EXPECT_TRUE(log_.Has("MA_AUTH", "ApiDeviceConnectUnbind: unexpected code: 401"));
  EXPECT_FALSE(api.ApiDeviceUpdate(region, json::object()));
  EXPECT_TRUE(log_.Has("MA_AUTH", "ApiDeviceUpdate: param is empty"));
  Answer("/api/device/", json{{"code", 200}});
  EXPECT_TRUE(api.DeviceConnectAuth(region, "unbind", "u"));
  const std::string proof = LastRequest();
  const json sent = json::parse(proof.substr(proof.find("\r\n\r\n") + 4));
  const std::string key = OpenSsl(dir_, "pkey -in key.pem -pubout -outform DER");
  EXPECT_TRUE(Verify("VB26&operate=unbind&nonce=" + sent["nonce"].get<std::string>(), sent["sign"],
                     {reinterpret_cast<const unsigned char*>(key.data()), key.size()}));
  EXPECT_EQ(sent["userId"], "u");
  device->ForgetTokens();
  EXPECT_FALSE(api.DeviceConnectAuth(region, "unbind", "u"));
  EXPECT_TRUE(log_.Has("MA_AUTH", "DeviceConnectAuth: access_token is empty"));
  for (const char* secret : {"pair", "signed", "BEGIN"})
    EXPECT_THAT(log_.Text(), Not(HasSubstr(secret)));
}

}  // namespace
}  // namespace varnel::service

// The virtual cloud by itself: what it takes for a proof of identity and of an upload, and what it
// keeps boards from. Programs that are not ours play the device.
#include <gmock/gmock.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "virtual_board/client/board.h"
#include "virtual_board/client/cloud.h"
#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr const char* kInt = "https://api.int.example.test";
constexpr const char* kCn = "https://api.cn.example.test";

/// A board that joined the cloud, with curl, openssl and mosquitto's clients for a daemon.
class Device {
 public:
  Device(const Cloud& cloud, KeyKind kind) : board_(Options(cloud, kind)) {
    const json identity = json::parse(ReadClearIdentityBlock(board_.Paths().Dev() / "mmcblk0"));
    serial_ = identity.at("SerialNumber");
    std::ofstream(board_.HostPath("/tmp/key")) << identity.at("PrivateKey").get<std::string>();
  }

  const std::string& Serial() const { return serial_; }

  /// A signature of this text, in a request for a token.
  json Grant(const std::string& signed_text, const std::string& nonce, const char* server = kInt) {
    std::ofstream(board_.HostPath("/tmp/text")) << signed_text;
    const std::string sign = Output(
        "openssl enc -d -A -base64 -in /tmp/key > /tmp/der && openssl dgst -sha256 -keyform "
        "DER -sign /tmp/der /tmp/text | openssl enc -A -base64");
    return Form({{"grant_type", "tarvolent_device"},
                 {"sign", sign},
                 {"sn", serial_},
                 {"nonce", nonce},
                 {"refresh", "false"},
                 {"scope", "mqtt"},
                 {"total_pt", "25"},
                 {"ver", "1.1.1"}},
                server);
  }
  json Refresh(const std::string& token) {
    return Form({{"grant_type", "refresh_token"}, {"refresh_token", token}}, kInt);
  }
  json Get(const std::string& path, const std::string& token) {
    return Curl("-H 'Authorization: Bearer " + token + "' '" + kInt + path + "'");
  }
  /// A token that is good at the cloud's first region.
  std::string Token() {
    const json reply = Grant(serial_ + "&nonce=200001", "200001");
    return reply.at("data").at("access_token");
  }
  json Post(const std::string& path, const std::string& token, const json& body) {
    return Curl("-H 'Authorization: Bearer " + token + "' -d '" + body.dump() + "' '" + kInt +
                path + "'");
  }
  /// SHA-256 of a file inside, in base64.
  std::string Checksum(const std::string& file) {
    return Output("openssl dgst -sha256 -binary " + file + " | openssl enc -A -base64");
  }
  /// HTTP status of what curl is told to do; 100 when it was told to go on, and nothing more.
  int Status(const std::string& arguments, const std::string& url) {
    const std::string line = "curl -s -m 10 -o /tmp/answer -w '%{http_code}' " + arguments;
    return std::stoi(Run(line + " '" + url + "'").out);
  }
  std::string Answer(const std::string& file = "/tmp/answer") const {
    return ReadFile(board_.HostPath(file));
  }
  /// What the cloud encrypted with the board's key, as a file inside.
  void Decrypt(const std::string& base64, const std::string& file) {
    std::ofstream(board_.HostPath("/tmp/cipher")) << base64;
    Output("openssl enc -d -A -base64 -in /tmp/cipher > /tmp/bytes");
    Output(
        "hex() { od -An -v -tx1 | tr -d ' \\n'; }; tail -c +17 /tmp/bytes | "
        "openssl enc -d -aes-256-cbc -K $(hex < /etc/varnel/cloud.key) "
        "-iv $(head -c 16 /tmp/bytes | hex) -out " +
        file);
  }
  /// mosquitto's client with the certificate of before.
  ProgramResult Mosquitto(const std::string& program, const std::string& topic) {
    return Run("mosquitto_" + program + " " + topic +
               " -V mqttv5 -q 1 -h broker.int.example.test -p 8883 --cert /tmp/crt --key /tmp/pem"
               " --cafile /etc/ssl/certs/ca-certificates.crt");
  }
  ProgramResult Run(const std::string& line) { return board_.Shell(line); }

 private:
  static BootOptions Options(const Cloud& cloud, KeyKind kind) {
    BootOptions options;
    options.start_broker = false;
    options.device_key = kind;
    options.cloud = cloud.Directory();
    return options;
  }
  std::string Output(const std::string& line) {
    const ProgramResult result = Run(line);
    EXPECT_EQ(result.status, 0) << line << "\n" << result.err;
    return result.out;
  }
  json Curl(const std::string& arguments) {
    return json::parse(Run("curl -sS -m 5 " + arguments).out, nullptr, false);
  }
  json Form(const std::vector<std::pair<std::string, std::string>>& fields, const char* server) {
    const std::string boundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW";
    std::ofstream form(board_.HostPath("/tmp/form"));
    for (const auto& [name, value] : fields) {
      form << "--" << boundary << "\r\nContent-Disposition: form-data; name=\"" << name
           << "\"\r\n\r\n"
           << value << "\r\n";
    }
    form << "--" << boundary << "--\r\n";
    form.close();
    return Curl("-H 'Content-Type: multipart/form-data; boundary=" + boundary +
                "' --data-binary @/tmp/form " + server + "/api/oauth2/token");
  }

  Board board_;
  std::string serial_;
};

Cloud& TheCloud() {
  static Cloud cloud;
  return cloud;
}

class VirtualCloudTest : public testing::TestWithParam<KeyKind> {};

TEST_P(VirtualCloudTest, OnlyARealProofOpensItAndOnlyForItsOwner) {
  Device device(TheCloud(), GetParam());
  const std::string sn = device.Serial();

  EXPECT_EQ(device.Grant(sn + "&nonce=100001", "100002").at("code"), 401) << "another nonce signed";
  json reply = device.Grant(sn + "&nonce=100003", "100003");
  ASSERT_EQ(reply.at("code"), 200);
  EXPECT_EQ(device.Grant(sn + "&nonce=100003", "100003").at("code"), 401) << "a nonce used twice";
  TheCloud().Tell({"lock", sn, "int"});
  EXPECT_EQ(device.Grant(sn + "&nonce=100004", "100004", kCn).at("code"), 602013);

  const std::string used = reply.at("data").at("refresh_token");
  reply = device.Refresh(used);
  ASSERT_EQ(reply.at("code"), 200);
  EXPECT_EQ(device.Refresh(used).at("code"), 401) << "a refresh token used twice";

  const std::string token = reply.at("data").at("access_token");
  const json access = device.Get("/api/device/getMqttCert?refresh=false", token).at("data");
  EXPECT_EQ(access.at("endpoint"), "broker.int.example.test");
  device.Decrypt(access.at("secretId"), "/tmp/crt");
  device.Decrypt(access.at("secretKey"), "/tmp/pem");
  EXPECT_EQ(device.Mosquitto("pub", "-t " + sn + "/status -m x").status, 0);
  EXPECT_THAT(device.Mosquitto("pub", "-t other/status -m x").err, HasSubstr("Not authorized"));
  EXPECT_THAT(device.Mosquitto("sub", "-t other/request -W 3").err, HasSubstr("denied"));

  TheCloud().Tell({"revoke", sn});
  EXPECT_EQ(device.Get("/api/device/connect/relation", token).at("code"), 401);
}

INSTANTIATE_TEST_SUITE_P(Keys, VirtualCloudTest, testing::Values(KeyKind::kEc, KeyKind::kRsa));

TEST(VirtualCloudStoreTest, SignsAsPublished) {
  const ProgramResult checked =
      RunProgram({"env", std::string("PYTHONPATH=") + VARNEL_CLOUD_PROGRAMS, "python3", "-B", "-m",
                  "virtual_cloud.signature_v4"});
  EXPECT_EQ(checked.out, "as published\n") << checked.err;
}

TEST(VirtualCloudStoreTest, TakesWhatWasSignedAndNothingElse) {
  Device device(TheCloud(), KeyKind::kEc);
  const std::string token = device.Token();
  device.Run("echo film > /tmp/film; echo other > /tmp/other");
  const std::string sum = device.Checksum("/tmp/film");
  const json create = {{"fileName", "a film/1.mp4"}, {"checkSum", sum}};
  const auto address = [&](const std::string& call, const json& body) -> std::string {
    return device.Post("/api/device/upload/" + call, token, body).at("data").at("url");
  };
  const std::string url = address("create", create);
  const auto changed = [&](const std::string& from, const std::string& to) {
    return std::string(url).replace(url.find(from), from.size(), to);
  };
  const std::string header = "-H 'x-amz-checksum-sha256: " + sum + "' ";
  const std::string put = "-T /tmp/film " + header;
  const std::tuple<std::string, std::string, int> refused[] = {
      {put + "-X POST", url, 403},
      {put, changed("store.int", "store.cn"), 403},
      {put, changed("1.mp4", "2.mp4"), 403},
      {put, url + "&x=1", 403},
      {put, changed("Expires=3600", "Expires=3601"), 403},
      {put + "-H 'x-amz-checksum-sha256: x'", url, 403},
      {put + "-H 'x-amz-acl: public-read'", url, 403},
      {put + "-H 'Authorization: Bearer " + token + "'", url, 400},
      {put + "-H 'Transfer-Encoding: chunked'", url, 501},
      {"-T /tmp/other " + header, url, 400},
  };
  for (const auto& [arguments, where, status] : refused) {
    EXPECT_EQ(device.Status(arguments, where), status) << arguments << where;
    EXPECT_THAT(device.Answer(), HasSubstr("<Error><Code>"));
  }
  EXPECT_EQ(device.Post("/api/device/upload/completed", token, create).at("code"), 400);
  TheCloud().SetUrlLife(std::chrono::seconds(0));
  EXPECT_EQ(device.Status(put + "-H 'Expect: 100-continue'", address("create", create)), 403);
  TheCloud().SetUrlLife(std::chrono::hours(1));
  EXPECT_EQ(TheCloud().Requests("/objects/a%20film/1.mp4").back().at("body_bytes"), 0);

  ASSERT_EQ(device.Status(put, address("create", create)), 200);
  EXPECT_EQ(device.Status("", address("completed", create)), 200);
  EXPECT_EQ(device.Answer(), "film\n");
}

TEST(VirtualCloudStoreTest, PutsTogetherWhatWasAgreed) {
  Device device(TheCloud(), KeyKind::kEc);
  const std::string token = device.Token();
  device.Run("head -c 5242881 /dev/urandom > /tmp/all; cd /tmp; split -b 5242880 all part");
  json sums;
  for (const char* file : {"/tmp/partaa", "/tmp/partab"}) {
    sums.push_back({{"partNumber", sums.size() + 1}, {"checkSum", device.Checksum(file)}});
  }
  const json created =
      device.Post("/api/device/upload/create", token, {{"fileName", "all"}, {"uploadParts", sums}})
          .at("data");
  const auto put = [&](size_t part) {
    return device.Status(
        std::string("-T /tmp/parta") + "ab"[part] +
            " -H 'x-amz-checksum-sha256: " + sums[part].at("checkSum").get<std::string>() + "'",
        created.at("uploadParts")[part].at("url"));
  };
  TheCloud().SetFaults("reset /objects/all part=2 times=1 0\n");
  EXPECT_EQ(put(1), 100) << "reset";
  EXPECT_EQ(TheCloud().Requests("/objects/all").back().at("body_bytes"), 0);
  EXPECT_EQ(put(1), 200);
  EXPECT_EQ(put(0), 200);
  const auto tag = [&](const std::string& file) {
    return "\"" + device.Run("md5sum < " + file).out.substr(0, 32) + "\"";
  };
  const json first = {{"partNumber", 1}, {"etag", tag("/tmp/partaa")}};
  const json second = {{"partNumber", 2}, {"etag", tag("/tmp/partab")}};
  const auto complete = [&](const json& parts) {
    return device.Post(
        "/api/device/upload/completed", token,
        {{"fileName", "all"}, {"uploadId", created.at("uploadId")}, {"uploadParts", parts}});
  };
  for (const json& wrong : {json{second, first}, json{first, {{"partNumber", 2}, {"etag", "x"}}}}) {
    EXPECT_EQ(complete(wrong).at("code"), 400) << wrong;
  }
  EXPECT_FALSE(std::filesystem::exists(TheCloud().ObjectFile("all")));
  EXPECT_EQ(complete({first, second}).at("code"), 200);
  EXPECT_EQ(ReadFile(TheCloud().ObjectFile("all")), device.Answer("/tmp/all"));
}

}  // namespace
}  // namespace varnel::board

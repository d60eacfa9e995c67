// The virtual cloud by itself: what it takes for a proof of identity, what it keeps boards from,
// and that faults are met and told. Programs that are not ours play the device.
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
  const Board& There() const { return board_; }

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

TEST(VirtualCloudFaultsTest, AreMetAndTold) {
  Device device(TheCloud(), KeyKind::kEc);
  const auto says = [&](const std::string& text) {
    const ProgramResult result =
        device.Run(std::string("curl -sS -m 2 ") + kInt + "/api/device/country");
    return (result.out + result.err).find(text) != std::string::npos;
  };
  const std::pair<std::string, std::string> faults[] = {
      {"code /api/device/country 7", R"("code": 7)"},
      {"cut /api/*/country 5", "bytes remaining"},
      {"certificate api expired", "certificate has expired"},
      {"certificate api foreign", "local issuer"},
      {"refuse api", "Failed to connect"},
      {"reset api 700", "reset by peer"},
      {"stall api 700", "timed out"},
      {"no-names *", "Resolving timed out"},
  };
  for (const auto& [fault, text] : faults) {
    TheCloud().SetFaults(fault + "\n");
    EXPECT_TRUE(says(text)) << fault;
    EXPECT_TRUE(TheCloud().AwaitEntry([&, &line = fault](const json& entry) {
      return entry.value("fault", "") == line && entry.at("board") == device.Serial();
    })) << fault;
  }
  TheCloud().SetFaults("status * times=1 device=" + device.Serial() + " 503\n");
  EXPECT_TRUE(says(R"("code": 503)"));
  EXPECT_TRUE(says("DE")) << "used up";
}

TEST(VirtualClockTest, IsAheadByWhatTheFileSays) {
  Device device(TheCloud(), KeyKind::kEc);
  const auto year = [&] {
    return device.Run("LD_PRELOAD=/opt/varnel/board/varnel-virtual-clock.so date +%Y").out;
  };
  device.There().SetClock(
      std::chrono::sys_days(std::chrono::year(1970) / 6 / 1) -
      std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now()));
  EXPECT_EQ(year(), "1970\n");
  device.There().SetClock(std::chrono::seconds(0));
  EXPECT_GT(year(), "2020");
}

}  // namespace
}  // namespace varnel::board

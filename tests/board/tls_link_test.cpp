// Who may meet over TLS: one MQTT client against a broker that demands client certificates.
#include <gmock/gmock.h>
#include <netdb.h>

#include "board/cloud_side.h"
#include "board/run_inside.h"
#include "comms/client_kind.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "virtual_board/client/board.h"

namespace varnel::board {
namespace {

using comms::MqttConnectSettings;
using test::Eventually;
using testing::HasSubstr;
using testing::Not;

void StartCloud() {
  static const CloudSide cloud;
}

struct Pair {
  const char* name;
  std::string host;
  std::string port;
  std::string root_ca;
  std::string client;
  bool accepted = false;

  friend void PrintTo(const Pair& pair, std::ostream* out) { *out << pair.name; }
  MqttConnectSettings Settings() const {
    MqttConnectSettings settings = CloudSide::Settings("tls-test");
    settings.host = host;
    settings.port = port;
    settings.root_ca = CloudSide::File(root_ca);
    settings.client_certificate = client.empty() ? "" : CloudSide::File(client + ".crt");
    settings.client_key = client.empty() ? "" : CloudSide::File(client + ".key");
    settings.user_name = "device";
    settings.password = "a-secret-password";
    return settings;
  }
};

/// A machine without /etc/hosts does not even know itself.
bool IsKnownHost(const std::string& host) {
  addrinfo* addresses = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, nullptr, &addresses) != 0) return false;
  ::freeaddrinfo(addresses);
  return true;
}

class TlsTest : public testing::TestWithParam<Pair> {};

TEST_P(TlsTest, OnlyTheRightPartnersMeet) {
  StartCloud();
  const test::LogCapture log(spdlog::level::trace);
  const MqttConnectSettings settings = GetParam().Settings();
  if (!IsKnownHost(settings.host))
    GTEST_SKIP() << "this machine has no address of " << settings.host;
  test::Mailbox<int> lost;
  const auto client = test::NewClient("Link");
  client->SetConnectionLostCallback([&] { lost.Put(1); });
  (void)client->Connect(settings);
  if (GetParam().accepted) {
    EXPECT_TRUE(Eventually([&] { return client->IsConnected(); }));
    EXPECT_TRUE(lost.Items().empty());
  } else {
    EXPECT_EQ(lost.WaitFor(1).size(), 1U) << "the owner is told";
    EXPECT_FALSE(client->IsConnected());
    EXPECT_THAT(log.Text(), HasSubstr("E [MQTT:"));
    (void)client->Connect(CloudSide::Settings("tls-test"));
    EXPECT_TRUE(Eventually([&] { return client->IsConnected(); })) << log.Text();
  }
  client->Disconnect();
  EXPECT_EQ(CloudSide::SecretIn(log.Text()), std::nullopt);
  EXPECT_THAT(log.Text(), Not(HasSubstr(settings.password)));
}

const char* const kHere = "127.0.0.1";
INSTANTIATE_TEST_SUITE_P(
    All, TlsTest,
    testing::Values(Pair{"ByAddress", kHere, "8883", "ca.crt", "client", true},
                    Pair{"ByName", "localhost", "8883", "ca.crt", "client", true},
                    Pair{"ForeignCa", kHere, "8883", "foreign-ca.crt", "client"},
                    Pair{"CaMissing", kHere, "8883", "no-such.crt", "client"},
                    Pair{"ServerExpired", kHere, "8884", "ca.crt", "client"},
                    Pair{"ServerOfOtherName", "localhost", "8885", "ca.crt", "client"},
                    Pair{"ServerOfOtherAddress", kHere, "8885", "ca.crt", "client"},
                    Pair{"ClientForeign", kHere, "8883", "ca.crt", "client-foreign"},
                    Pair{"ClientExpired", kHere, "8883", "ca.crt", "client-expired"},
                    Pair{"ClientMissing", kHere, "8883", "ca.crt", "no-such"},
                    Pair{"ClientNone", kHere, "8883", "ca.crt", ""}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace varnel::board

int main(int argc, char** argv) {
  return varnel::board::RunInsideBoard(argc, argv, varnel::board::BootOptions());
}

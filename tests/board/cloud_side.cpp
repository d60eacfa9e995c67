#include "board/cloud_side.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "board/run_inside.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "virtual_board/client/board.h"

namespace varnel::board {
namespace {

constexpr const char* kDirectory = "/tmp/cloud";
constexpr const char* kService = "cloud";

std::string Listener(int port, const std::string& certificate) {
  const std::string directory = std::string(kDirectory) + "/";
  return "listener " + std::to_string(port) + " 127.0.0.1\n" +  //
         "certfile " + directory + certificate + ".crt\n" +     //
         "keyfile " + directory + certificate + ".key\n" +      //
         "cafile " + directory + "ca.crt\n" +                   //
         "require_certificate true\n";
}

bool TakesConnections() {
  const std::string directory = std::string(kDirectory) + "/";
  return TheBoard()
             .Exec({"/usr/bin/mosquitto_pub", "-t", "ready", "-m", "x", "-p", "8883", "--cafile",
                    directory + "ca.crt", "--cert", directory + "client.crt", "--key",
                    directory + "client.key"})
             .status == 0;
}

}  // namespace

CloudSide::CloudSide() {
  const auto made = TheBoard().Exec({"/opt/varnel/board/cloud/make-certificates", kDirectory});
  if (made.status != 0) throw std::runtime_error("no certificates: " + made.err);
  std::ofstream(File("mosquitto.conf"))
      << "per_listener_settings false\nallow_anonymous true\nuser root\nset_tcp_nodelay true\n"
      << Listener(8883, "server") << Listener(8884, "server-expired")
      << Listener(8885, "server-other-name");
  Start();
}

void CloudSide::Start() const {
  const std::string configuration = std::string(kDirectory) + "/mosquitto.conf";
  if (!TheBoard().RunService(kService, {"/usr/sbin/mosquitto", "-c", configuration})) {
    throw std::runtime_error("the cloud's broker does not start");
  }
  if (!test::Eventually(TakesConnections)) {
    throw std::runtime_error("the cloud's broker does not answer");
  }
}

void CloudSide::Kill() const {
  (void)TheBoard().SignalService(kService, SIGKILL);
  (void)TheBoard().AwaitServiceEnd(kService);
}

std::string CloudSide::File(const std::string& name) {
  return TheBoard().HostPath(std::string(kDirectory) + "/" + name);
}

comms::MqttConnectSettings CloudSide::Settings(const std::string& client_id) {
  return {.host = "127.0.0.1",
          .port = "8883",
          .client_id = client_id,
          .client_certificate = File("client.crt"),
          .client_key = File("client.key"),
          .root_ca = File("ca.crt"),
          .connect_timeout_s = 10};
}

std::optional<std::string> CloudSide::SecretIn(const std::string& text) {
  for (const auto& entry : std::filesystem::directory_iterator(File(""))) {
    if (entry.path().extension() != ".key") continue;
    const std::string key = test::ReadFile(entry.path());
    if (text.find(key.substr(key.find('\n') + 1, 40)) != std::string::npos) return entry.path();
  }
  return std::nullopt;
}

}  // namespace varnel::board

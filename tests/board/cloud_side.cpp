#include "board/cloud_side.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
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

std::string Unhex(const std::string& hex) {
  std::string bytes(hex.size() / 2, '\0');
  const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>(digit(hex[2 * i]) * 16 + digit(hex[2 * i + 1]));
  }
  return bytes;
}

bool Published(const std::vector<std::string>& options, const std::string& topic,
               const std::string& payload) {
  std::vector<std::string> command = {
      "/usr/bin/mosquitto_pub", "-q", "1", "-t", topic, "-m", payload};
  command.insert(command.end(), options.begin(), options.end());
  return TheBoard().Exec(command).status == 0;
}

std::vector<std::string> SpyCommand(const std::string& name,
                                    const std::vector<std::string>& options) {
  std::vector<std::string> command = {"/usr/bin/mosquitto_sub", "-V", "mqttv5", "-i", name};
  command.insert(command.end(), {"-t", "#", "-q", "1", "--retain-as-published"});
  command.insert(command.end(), {"-F", "%t %q %r %x"});
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

SpiedMessage ParseLine(const std::string& line) {
  std::istringstream words(line);
  SpiedMessage message;
  std::string hex;
  words >> message.topic >> message.qos >> message.retain >> hex;
  message.payload = Unhex(hex);
  return message;
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
  if (!test::Eventually([] { return Published(ClientOptions(), "ready", "x"); })) {
    throw std::runtime_error("the cloud's broker does not answer");
  }
}

void CloudSide::Kill() const {
  (void)TheBoard().SignalService(kService, SIGKILL);
  (void)TheBoard().AwaitServiceEnd(kService);
}

std::vector<std::string> CloudSide::ClientOptions() {
  const std::string directory = std::string(kDirectory) + "/";
  return {"-p",       "8883",
          "--cafile", directory + "ca.crt",
          "--cert",   directory + "client.crt",
          "--key",    directory + "client.key"};
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

BrokerSpy::BrokerSpy(std::string name, std::vector<std::string> options)
    : name_(std::move(name)), options_(std::move(options)), command_(SpyCommand(name_, options_)) {
  AwaitReady();
}

void BrokerSpy::AwaitReady() {
  // mosquitto_sub may end with its connection; while it runs this is refused.
  (void)TheBoard().RunService(name_, command_);
  const std::string topic = "mark/" + name_ + std::to_string(++marks_);
  const bool ready = test::Eventually([&] {
    (void)Published(options_, topic, "x");
    return !Seen(topic).empty();
  });
  if (!ready) throw std::runtime_error(name_ + " sees nothing");
}

void BrokerSpy::ReadOn() {
  std::ifstream file(TheBoard().HostPath("/var/log/" + name_ + ".log"));
  file.seekg(read_);
  for (std::string line; std::getline(file, line) && !file.eof();) {
    read_ += static_cast<std::streamoff>(line.size()) + 1;
    messages_.push_back(ParseLine(line));
  }
}

std::vector<SpiedMessage> BrokerSpy::Seen(const std::string& topic_prefix) {
  ReadOn();
  std::vector<SpiedMessage> seen;
  std::copy_if(
      messages_.begin(), messages_.end(), std::back_inserter(seen),
      [&](const SpiedMessage& message) { return message.topic.starts_with(topic_prefix); });
  return seen;
}

bool BrokerSpy::WaitFor(const std::string& topic, const std::string& payload) {
  return test::Eventually([&] {
    const auto seen = Seen(topic);
    return std::any_of(seen.begin(), seen.end(),
                       [&](const SpiedMessage& message) { return message.payload == payload; });
  });
}

}  // namespace varnel::board

#include "service/agent/authentication_world.h"

#include <array>
#include <thread>

#include "service/agent/auth/aes.h"
#include "utils/base64.h"
#include "utils/safe_exec.h"

namespace varnel::service {
namespace {

std::string Sealed(const utils::SecretString& key, const std::string& text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  return utils::EncodeBase64(AesEncrypt(key, {bytes, text.size()}).value());
}

}  // namespace

std::string OpenSsl(const test::TempDir& dir, const std::string& arguments) {
  return utils::SafeExec("/bin/sh")
      .AddArg("-c")
      .AddArg("cd '" + dir.Path().string() + "' && openssl " + arguments)
      .Execute()
      .standard_output;
}

Identity MakeIdentity(const test::TempDir& dir, const std::string& algorithm,
                      const std::string& days) {
  const std::string options =
      algorithm == "EC" ? " -pkeyopt ec_paramgen_curve:P-256" : " -pkeyopt rsa_keygen_bits:2048";
  (void)OpenSsl(dir, "genpkey -algorithm " + algorithm + options + " -out key.pem");
  (void)OpenSsl(
      dir, "req -x509 -new -key key.pem -subj /CN=device -days " + days + " -out certificate.pem");
  return {test::ReadFile(dir / "key.pem"), test::ReadFile(dir / "certificate.pem"),
          OpenSsl(dir, "pkey -in key.pem -outform DER | openssl base64 -A")};
}

void OnEightThreads(const std::function<void()>& run) {
  std::array<std::jthread, 8> threads;
  for (auto& thread : threads) thread = std::jthread(run);
}

AuthenticationWorld::AuthenticationWorld()
    : server_([this](const std::string& request, const test::ScriptedServer::Peer& peer) {
        if (on_request_) on_request_(request);
        for (const auto& answers = answers_.Items();
             const auto& [path, body] : std::vector(answers.rbegin(), answers.rend())) {
          if (request.find(" " + path) != std::string::npos) return peer.Answer(body);
        }
        return peer.Answer("", "404 Not Found");
      }) {
  clock_.SetWallTime(std::chrono::system_clock::now());
  setup_ = {.serial_number = "VB26",
            .private_key = std::make_shared<utils::SecretString>(identity_.key_line),
            .firmware_version = "2.0.1",
            .certificates = dir_ / "certs",
            .credential_key = {std::make_shared<utils::SecretString>(std::string(32, 'k')), false},
            .clock = &clock_};
  setup_.country_code_path = "/cc";
  setup_.places.local_marker = dir_.Write("local_server", "");
  setup_.places.local_server = server_.Url("").substr(7);
}

std::unique_ptr<DeviceAuthentication> AuthenticationWorld::Device() const {
  auto setup = setup_;
  auto device = std::make_unique<DeviceAuthentication>(std::move(setup));
  device->SetRegion("cn");
  return device;
}

nlohmann::json AuthenticationWorld::CertsReply() const {
  const auto& key = *setup_.credential_key.aes;
  return {{"code", 200},
          {"data",
           {{"clientId", "client-1"},
            {"endpoint", "broker.example"},
            {"port", "8883"},
            {"secretId", Sealed(key, identity_.certificate + identity_.certificate)},
            {"secretKey", Sealed(key, identity_.key)}}}};
}

}  // namespace varnel::service

#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "service/agent/auth/device_authentication.h"
#include "service/cloud/scripted_server.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {

/// Runs the openssl program in a directory; its standard output.
std::string OpenSsl(const test::TempDir& dir, const std::string& arguments);

/// A key, or a certificate of it, made by the openssl program.
struct Identity {
  std::string key;          ///< PEM
  std::string certificate;  ///< PEM
  std::string key_line;     ///< base64 of DER, as the device holds it
};
Identity MakeIdentity(const test::TempDir& dir, const std::string& algorithm,
                      const std::string& days = "1");

/// Returns when all have ended.
void OnEightThreads(const std::function<void()>& run);

/// A device and a server beside it that answers by path with what a test has put there.
class AuthenticationWorld {
 public:
  AuthenticationWorld();

  [[nodiscard]] std::unique_ptr<DeviceAuthentication> Device() const;
  /// "secretId" and "secretKey" as a server sends them.
  [[nodiscard]] nlohmann::json CertsReply() const;
  [[nodiscard]] static nlohmann::json TokenReply(const std::string& access,
                                                 const std::string& refresh) {
    return {{"code", 200}, {"data", {{"access_token", access}, {"refresh_token", refresh}}}};
  }
  void Answer(const std::string& path, const std::string& body) { answers_.Put({path, body}); }
  void Answer(const std::string& path, const nlohmann::json& reply) { Answer(path, reply.dump()); }
  /// The last request with its headers and body.
  [[nodiscard]] std::string LastRequest() const { return server_.requests.Items().back(); }

  /// Called by the server before it answers.
  std::function<void(const std::string& request)> on_request_;
  test::LogCapture log_{spdlog::level::trace};
  test::TempDir dir_;
  mutable test::FakeClock clock_;
  const Identity identity_ = MakeIdentity(dir_, "EC");
  AuthenticationSetup setup_;
  test::Mailbox<std::pair<std::string, std::string>> answers_;  ///< the last of a path counts
  test::ScriptedServer server_;
};

}  // namespace varnel::service

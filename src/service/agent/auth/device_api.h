#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "service/agent/auth/device_authentication.h"

namespace varnel::service {

/// The device's calls to the cloud's API. Each sends one request with the access token that there
/// is, to the server of the region that it is given; what goes wrong is logged, and no call throws.
/// An unknown region sends nothing. Thread-safe; one call at a time, so that whoever must not wait
/// for others has one of its own.
class DeviceApi {
 public:
  /// One function of the API and its words.
  struct Endpoint;

  /// @param disconnected_code of a reply: the server takes the device for disconnected
  /// @param on_disconnected called by the thread of the request
  /// @param timeout_s of a whole request
  DeviceApi(DeviceAuthentication& authentication, int disconnected_code,
            std::function<void()> on_disconnected, int32_t timeout_s = HttpSettings().timeout_s);

  /// @param params "name" and "online"
  [[nodiscard]] bool ApiDeviceUpdate(const std::string& region, const nlohmann::json& params);
  /// The code by which a user binds the device; a secret.
  [[nodiscard]] std::optional<std::string> ApiDeviceConnectCode(const std::string& region,
                                                                const nlohmann::json& document);
  [[nodiscard]] bool ApiDeviceConnectUnbind(const std::string& region, const std::string& user_id);
  /// The whole reply.
  [[nodiscard]] std::optional<nlohmann::json> ApiDeviceConnectRelation(const std::string& region);
  [[nodiscard]] std::optional<nlohmann::json> ApiDeviceFirmwareLatest(const std::string& region,
                                                                      const nlohmann::json& params);
  /// Where the file may be fetched; a secret.
  [[nodiscard]] std::optional<std::string> UrlAuthorize(const std::string& region,
                                                        const std::string& url);
  /// The task of a job.
  [[nodiscard]] std::optional<nlohmann::json> ApiDevicePrintGet(const std::string& region,
                                                                const nlohmann::json& params);
  /// The whole reply.
  [[nodiscard]] std::optional<nlohmann::json> ApiDevicePrint(const std::string& region,
                                                             const nlohmann::json& task);
  /// Proves that it is the device that wants this for a user.
  [[nodiscard]] bool DeviceConnectAuth(const std::string& region, const std::string& operate,
                                       const std::string& user_id);

 private:
  struct Request;

  using Access = DeviceAuthentication::Access;

  [[nodiscard]] std::optional<std::string> DeviceApiPost(const Access& access,
                                                         const Request& request);
  [[nodiscard]] std::optional<std::string> DeviceApiGet(const Access& access,
                                                        const Request& request);
  [[nodiscard]] std::optional<nlohmann::json> Call(const Request& request);
  [[nodiscard]] std::optional<nlohmann::json> CallWith(const Access& access,
                                                       const Request& request);
  [[nodiscard]] std::optional<std::string> Judged(const Access& access, const char* name,
                                                  const std::string& url, HttpResponse response);
  [[nodiscard]] std::optional<nlohmann::json> ReadReply(const Access& access,
                                                        const Endpoint& endpoint,
                                                        const std::string& body);
  [[nodiscard]] bool IsCodeGood(const Access& access, const Endpoint& endpoint,
                                const nlohmann::json& reply, size_t body_size);

  DeviceAuthentication& authentication_;
  HttpClient http_;
  const int disconnected_code_;
  const std::function<void()> on_disconnected_;
};

}  // namespace varnel::service

#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "service/agent/agent.h"
#include "service/agent/auth/device_authentication.h"
#include "service/cloud/http/http_client.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Requests to the cloud's API on behalf of the other services, with the device's right to make
/// them. Thread-safe; nothing throws to the caller.
class CloudAccess {
 public:
  /// Who knows whether the device is connected, and with what right.
  struct Source {
    std::shared_ptr<const Agent> agent{};
    std::shared_ptr<DeviceAuthentication> authentication{};
  };

  /// @param stop ends requests
  explicit CloudAccess(TransferStop stop, utils::Clock& clock = utils::SystemClock::Instance());

  /// Without an agent there is no access.
  void SetSource(Source source);

  /// 0, or -1 with the reason in the log: then nothing has been sent.
  [[nodiscard]] int GetAccess();
  /// Where requests go now; empty without access.
  [[nodiscard]] std::string Server();
  /// The body of the answer, whatever its status; empty without one. A token that is refused is
  /// replaced, and the request sent once more.
  /// @param where a path of the API, or a URL of its server
  [[nodiscard]] std::string Post(const std::string& where, const nlohmann::json& document,
                                 const RequestOptions& options = {});

 private:
  using Access = DeviceAuthentication::Access;

  [[nodiscard]] Source CurrentSource() const;
  [[nodiscard]] static bool Holds(const Access& access, const Source& source);
  [[nodiscard]] std::optional<Access> FindAccess(const Source& source) const;
  /// What was found last, if it still holds, or what there is now.
  [[nodiscard]] std::optional<Access> CurrentAccess();
  [[nodiscard]] std::optional<Access> RenewedAccess(const Access& refused);
  /// What is asked, and where.
  struct Question {
    const std::string& where;
    const nlohmann::json& document;
    const RequestOptions& options;
  };
  [[nodiscard]] HttpResponse Send(const Access& access, const std::string& url,
                                  const Question& question);
  [[nodiscard]] HttpResponse SendAgain(const Access& refused, const std::string& tag,
                                       const Question& question);
  [[nodiscard]] std::string PostOrThrow(const Question& question);
  [[nodiscard]] std::unique_ptr<HttpClient> TakeClient();
  void GiveBack(std::unique_ptr<HttpClient> client);

  const TransferStop stop_;
  utils::Clock& clock_;
  mutable utils::Mutex mutex_;
  /// That nobody uses: a request that hangs must not hold up those of others.
  std::vector<std::unique_ptr<HttpClient>> idle_ GUARDED_BY(mutex_);
  Source source_ GUARDED_BY(mutex_);
  std::optional<Access> access_ GUARDED_BY(mutex_);
};

}  // namespace varnel::service

#pragma once

#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "service/agent/auth/broker_access.h"
#include "utils/clock.h"

namespace varnel::service {

/// Before the day of this build no clock can have been set: a board without a battery for it starts
/// in 1970.
[[nodiscard]] bool IsClockSet(const utils::Clock& clock);

/// Who gives credentials: a region has several servers, whose brokers are not the same.
struct CredentialSource {
  std::string region;
  std::string server;  ///< its base URL
};

/// The files that the cloud link is made with, in a directory that only their owner may enter.
/// "auth_info.json" goes first and comes last: where it is, the others belong to it. One thread.
class CredentialStore {
 public:
  explicit CredentialStore(std::filesystem::path directory,
                           utils::Clock& clock = utils::SystemClock::Instance());

  /// Writes all files. The information names them by their paths, and holds no secret: "endpoint",
  /// "port", "clientid", "client_cert", "client_key", "root_ca". Nothing when a file cannot be
  /// written, which is logged; then there are none.
  [[nodiscard]] std::optional<nlohmann::json> Save(const BrokerAccess& access) const;
  /// Writes it for the next start.
  void SaveAuthInfoToCache(const nlohmann::json& info, const CredentialSource& source) const;
  /// What was written for this source, if all files are there and belong together.
  [[nodiscard]] std::optional<nlohmann::json> LoadAuthInfoFromCache(
      const CredentialSource& source) const;

  /// Removes all files.
  void Remove() const;
  /// Any failure to read counts as expired. Before the clock was ever set nothing is judged: a
  /// certificate that can be read is good.
  [[nodiscard]] bool CheckCertExpired() const;

 private:
  std::filesystem::path Certificate() const { return directory_ / "client.cert"; }
  std::filesystem::path Key() const { return directory_ / "client.key"; }
  std::filesystem::path RootCa() const { return directory_ / "root_ca.pem"; }
  std::filesystem::path Cache() const { return directory_ / "auth_info.json"; }
  [[nodiscard]] bool MakeDirectory() const;
  [[nodiscard]] bool Write(const std::filesystem::path& file, std::string_view content) const;
  [[nodiscard]] nlohmann::json WithPaths(nlohmann::json info) const;

  [[nodiscard]] bool WriteAll(const BrokerAccess& access) const;

  const std::filesystem::path directory_;
  utils::Clock& clock_;
  mutable std::atomic<bool> unset_clock_told_ = false;
};

}  // namespace varnel::service

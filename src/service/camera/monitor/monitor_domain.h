#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace varnel::service {

/// Who watches.
enum class MonitorDomain {
  kLan,  ///< over the web server of the board
  kWan,  ///< over the cloud
};

[[nodiscard]] const char* NameOf(MonitorDomain domain);
/// Nothing for any other text than "lan" and "wan".
[[nodiscard]] std::optional<MonitorDomain> ParseMonitorDomain(std::string_view text);

/// The domains that are on.
struct MonitorDomains {
  bool lan = false;
  bool wan = false;

  [[nodiscard]] bool Any() const { return lan || wan; }
  [[nodiscard]] bool& Of(MonitorDomain domain) { return domain == MonitorDomain::kWan ? wan : lan; }
  /// The one that is named where one stands for both; only while one is on.
  [[nodiscard]] MonitorDomain First() const {
    return wan ? MonitorDomain::kWan : MonitorDomain::kLan;
  }
  /// "lan wan"
  [[nodiscard]] std::string Text() const;
};

}  // namespace varnel::service

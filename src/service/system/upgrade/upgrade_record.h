#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace varnel::service {

/// An upgrade whose outcome clients have not been told: the board may restart in its middle.
struct UpgradeRecord {
  std::string package{};      ///< the file
  std::string fullversion{};  ///< that the board had before
  std::string expected{};     ///< that it will have; empty: not known

  /// False when it cannot be written.
  [[nodiscard]] bool Save(const std::filesystem::path& file) const;
  /// Nothing without one that makes sense.
  [[nodiscard]] static std::optional<UpgradeRecord> Load(const std::filesystem::path& file);
  /// Whether a board of this version has been upgraded.
  [[nodiscard]] bool HasSucceeded(const std::string& now) const {
    return expected.empty() ? now != fullversion : now == expected;
  }
};

/// Whether an upgrade of this package goes on, whoever began it.
/// @param proc where the processes are
[[nodiscard]] bool IsUpgradeRunning(const std::string& package,
                                    const std::filesystem::path& proc = "/proc");

}  // namespace varnel::service

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
  std::string outcome{};      ///< "success", or why it failed; empty: not known

  /// False when it cannot be written.
  [[nodiscard]] bool Save(const std::filesystem::path& file) const;
  /// Nothing without one that makes sense.
  [[nodiscard]] static std::optional<UpgradeRecord> Load(const std::filesystem::path& file);
  /// The outcome for a board that has this version after a restart: the script's word does not
  /// count where the version says otherwise.
  [[nodiscard]] std::string OutcomeAt(const std::string& now) const;
};

/// Whether a board that says `local` has the firmware `remote`: boards say 32 bytes at most, and
/// one that cannot say it has none.
[[nodiscard]] bool IsThisVersion(const std::string& local, const std::string& remote);

/// Whether an upgrade of this package goes on, whoever began it; an empty one: of any.
/// @param proc where the processes are
[[nodiscard]] bool IsUpgradeRunning(const std::string& package,
                                    const std::filesystem::path& proc = "/proc");

}  // namespace varnel::service

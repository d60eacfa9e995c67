#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

namespace varnel::service {

/// The directory in which firmware is kept, which only we may enter: what was checked there is
/// what is flashed. Its functions may be called by any thread.
class FirmwareStore {
 public:
  /// @param parent the board's place for data
  explicit FirmwareStore(const std::filesystem::path& parent);

  /// Makes the directory. False when it cannot be ours, which is logged: a link, or somebody
  /// else's.
  [[nodiscard]] bool Prepare() const;

  [[nodiscard]] std::filesystem::path Firmware(const std::string& fullversion) const;
  /// What has come of it so far.
  [[nodiscard]] std::filesystem::path Part(const std::string& fullversion) const;
  /// What is known of that part.
  [[nodiscard]] std::filesystem::path PartRecord(const std::string& fullversion) const;
  /// What has to be told of an upgrade.
  [[nodiscard]] std::filesystem::path UpgradeRecord() const { return directory_ / "upgrade.json"; }
  [[nodiscard]] const std::filesystem::path& Directory() const { return directory_; }

  /// Keeps the description that was read last.
  [[nodiscard]] std::error_code KeepDescription(std::string_view text) const;
  /// Removes firmware of other versions and parts of it, but what is in use.
  void RemoveOthers(const std::string& fullversion,
                    const std::function<bool(const std::string& fullversion)>& in_use) const;
  void RemoveFirmware(const std::string& fullversion) const;
  /// Removes a part and what is known of it.
  void RemovePart(const std::string& fullversion) const;

 private:
  const std::filesystem::path directory_;
};

}  // namespace varnel::service

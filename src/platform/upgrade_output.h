#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "utils/owned.h"

namespace varnel::platform {

/// A file that takes the output of an upgrade script. The script may run for as long as it likes
/// and write what it likes, also after the daemon has ended, so the file is cut when it gets long:
/// its beginning stays, the script writes on behind it.
class UpgradeOutput {
 public:
  /// The bytes that are kept of the beginning, and the size from which the file is cut.
  static constexpr size_t kKept = 40'960;
  static constexpr size_t kLimit = size_t{1} << 20U;

  [[nodiscard]] static std::optional<UpgradeOutput> Create(const std::string& directory);
  /// Their paths in a directory, with a "*" for the part that differs.
  [[nodiscard]] static std::string NamesIn(const std::string& directory);
  /// Those that earlier daemons left in the directory.
  [[nodiscard]] static std::vector<UpgradeOutput> FindIn(const std::string& directory);

  const std::string& Path() const { return path_; }
  [[nodiscard]] std::string Beginning() const;
  void CutIfLong() const;
  /// A program still has it open for writing, us not counted.
  [[nodiscard]] bool InUse() const;
  void Remove() const;

 private:
  UpgradeOutput(std::string path, utils::UniqueFd file);

  std::string path_;
  utils::UniqueFd file_;
};

/// Keeps files short while it lives, on a thread of its own.
class UpgradeOutputGuard {
 public:
  /// Looks after this file, which must outlive the guard.
  explicit UpgradeOutputGuard(const UpgradeOutput& output);
  /// Looks after the files of earlier daemons; each goes once its script has ended, those of ended
  /// ones at once.
  explicit UpgradeOutputGuard(std::vector<UpgradeOutput> leftovers);

 private:
  std::jthread thread_;
};

}  // namespace varnel::platform

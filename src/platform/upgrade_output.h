#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "utils/mutex.h"
#include "utils/owned.h"
#include "utils/pausing_thread.h"

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

/// Keeps the output of a running script short while it lives, on a thread of its own.
class UpgradeOutputGuard {
 public:
  /// The file must outlive the guard. Throws when there is no thread to be had.
  explicit UpgradeOutputGuard(const UpgradeOutput& output);

 private:
  utils::PausingThread thread_;
};

/// The files of scripts that have ended, or of earlier daemons: they are kept short as long as a
/// program that a script has left still writes into them, then they go. One thread, only while
/// there are such files. Thread-safe.
class UpgradeLeftovers {
 public:
  /// Looks after these as well; what nobody uses any more goes at once. Without a thread they stay
  /// for the next daemon, which is logged.
  void Keep(std::vector<UpgradeOutput> outputs);
  /// Ends the thread; the files stay.
  void Release();

 private:
  void LookAfterAll(const utils::PausingThread::Pause& pause);

  utils::Mutex mutex_;
  std::vector<UpgradeOutput> outputs_;  // the thread's while there is one, else mutex_
  std::optional<utils::PausingThread> thread_ GUARDED_BY(mutex_);
};

}  // namespace varnel::platform

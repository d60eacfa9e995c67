#pragma once

#include <filesystem>
#include <vector>

#include "utils/held_directory.h"
#include "utils/mutex.h"

namespace varnel::utils {

/// Another file system begins at this directory.
[[nodiscard]] bool IsMountPoint(const std::filesystem::path& directory);

/// The directories on which drives were reported to be mounted. Thread-safe.
class ReportedDrives {
 public:
  /// Tells whether a drive is still mounted there.
  using MountCheck = bool (*)(const std::filesystem::path& directory);

  explicit ReportedDrives(MountCheck is_mount_point = IsMountPoint)
      : is_mount_point_(is_mount_point) {}

  /// A path that is not absolute, or the root itself, is ignored.
  void Add(const std::filesystem::path& directory);
  /// Whether the directory, whose path has no links, lies on one of them while it is mounted.
  [[nodiscard]] bool Hold(const HeldDirectory& directory) const;

 private:
  bool IsOn(const HeldDirectory& directory, const std::filesystem::path& drive) const;

  const MountCheck is_mount_point_;
  mutable Mutex mutex_;
  std::vector<std::filesystem::path> drives_ GUARDED_BY(mutex_);
};

}  // namespace varnel::utils

#include "utils/reported_drives.h"

#include <sys/stat.h>

#include <algorithm>
#include <system_error>

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

bool IsBelow(const fs::path& path, const fs::path& directory) {
  const auto ends = std::mismatch(path.begin(), path.end(), directory.begin(), directory.end());
  return ends.second == directory.end();
}

}  // namespace

bool IsMountPoint(const fs::path& directory) {
  struct stat here {};
  struct stat above {};
  return ::stat(directory.c_str(), &here) == 0 && ::stat((directory / "..").c_str(), &above) == 0 &&
         here.st_dev != above.st_dev;
}

void ReportedDrives::Add(const fs::path& directory) {
  if (!directory.is_absolute() || !directory.has_relative_path()) {
    return;
  }
  const MutexLock lock(mutex_);
  if (std::find(drives_.begin(), drives_.end(), directory) == drives_.end()) {
    drives_.push_back(directory);
  }
}

bool ReportedDrives::Hold(const HeldDirectory& directory) const {
  MutexLock lock(mutex_);
  const std::vector<fs::path> drives = drives_;
  lock.unlock();  // a dying drive can block what follows
  return std::any_of(drives.begin(), drives.end(),
                     [&](const fs::path& drive) { return IsOn(directory, drive); });
}

bool ReportedDrives::IsOn(const HeldDirectory& directory, const fs::path& drive) const {
  std::error_code error;
  const fs::path real = fs::canonical(drive, error);
  if (error || !IsBelow(directory.Path(), real) || !is_mount_point_(real)) {
    return false;
  }
  // Not one below the mount point, opened while nothing was mounted there.
  struct stat held {};
  struct stat mounted {};
  return ::fstat(directory.Fd(), &held) == 0 && ::stat(real.c_str(), &mounted) == 0 &&
         held.st_dev == mounted.st_dev;
}

}  // namespace varnel::utils

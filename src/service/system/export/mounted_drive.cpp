#include "service/system/export/mounted_drive.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <system_error>
#include <utility>

namespace varnel::service {
namespace {

/// Before Linux 5.8.
bool IsOnAnotherDiskThanItsParent(int directory) {
  struct stat here {};
  struct stat above {};
  return ::fstat(directory, &here) == 0 && ::fstatat(directory, "..", &above, 0) == 0 &&
         here.st_dev != above.st_dev;
}

bool IsMountRoot(int directory) {
  struct statx info {};
  if (::statx(directory, "", AT_EMPTY_PATH, 0, &info) == 0 &&
      (info.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    return (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  }
  return IsOnAnotherDiskThanItsParent(directory);
}

}  // namespace

utils::Result<utils::HeldDirectory, std::string> OpenMountedDrive(
    const std::filesystem::path& directory) {
  if (!directory.is_absolute() || !directory.has_relative_path()) {
    return std::string("no mount directory");
  }
  std::error_code error;
  auto held = utils::HeldDirectory::OpenWithoutLinks(directory, error);
  if (!held) return error.message();
  if (!IsMountRoot(held->Fd())) return std::string("nothing is mounted there");
  return *std::move(held);
}

}  // namespace varnel::service

#include "utils/free_space.h"

#include <sys/statvfs.h>

namespace varnel::utils {

bool EnoughFreeSpace(const std::filesystem::path& directory, uint64_t min_bytes) {
  struct statvfs info {};
  // Some virtual file systems have no notion of size and report 0 blocks.
  if (min_bytes == 0 || ::statvfs(directory.c_str(), &info) != 0 || info.f_blocks == 0) {
    return true;
  }
  return info.f_bavail >= min_bytes / info.f_frsize + (min_bytes % info.f_frsize != 0 ? 1 : 0);
}

}  // namespace varnel::utils

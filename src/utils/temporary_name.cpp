#include "utils/temporary_name.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <system_error>
#include <utility>

#include "utils/descriptor_path.h"
#include "utils/directory_entries.h"
#include "utils/owned.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

/// Held until the result is closed, so that nobody begins to use it meanwhile; nothing when
/// somebody does.
UniqueFd OpenAbandoned(int directory, const char* name, Leftovers which) {
  UniqueFd fd(::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  const bool free = fd && ::flock(fd.Get(), LOCK_EX | LOCK_NB) == 0;
  return free || which == Leftovers::kAll ? std::move(fd) : UniqueFd();
}

void RemoveLeftover(int directory, const char* name, Leftovers which) {
  struct stat info {};
  if (::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) != 0 || info.st_uid != ::geteuid()) {
    return;
  }
  if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
    ::unlinkat(directory, name, 0);
    return;
  }
  const UniqueFd leftover = OpenAbandoned(directory, name, which);
  if (!leftover) {
    return;
  }
  if (S_ISDIR(info.st_mode)) {
    RemoveFilesIn(leftover.Get());
  }
  ::unlinkat(directory, name, S_ISDIR(info.st_mode) ? AT_REMOVEDIR : 0);
}

}  // namespace

std::string TemporaryName() {
  constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  std::uniform_int_distribution<size_t> place(0, sizeof kCharacters - 2);
  std::string name = kTemporaryPrefix;
  for (int i = 0; i < 6; ++i) {
    name += kCharacters[place(random)];
  }
  return name;
}

bool HoldTemporary(int directory, const char* path, int fd) {
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    return errno != EWOULDBLOCK;  // not on every file system: then it is in use without a mark
  }
  return ::faccessat(directory, path, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

int CreateHeldFile(int directory, const char* path) {
  UniqueFd file(::openat(directory, path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (file && !HoldTemporary(directory, path, file.Get())) {
    ::unlinkat(directory, path, 0);
    file.Reset();
    errno = EEXIST;
  }
  return file.Release();
}

void RemoveFilesIn(int directory) {
  std::error_code ignored;
  ForEachEntry(DescriptorPath(directory), ignored, [directory](const fs::directory_entry& entry) {
    ::unlinkat(directory, entry.path().filename().c_str(), 0);
  });
}

void RemoveLeftovers(const fs::path& directory, Leftovers which) {
  std::error_code ignored;
  if (const auto held = HeldDirectory::Open(directory, ignored)) {
    RemoveLeftovers(*held, which);
  }
}

void RemoveLeftovers(const HeldDirectory& directory, Leftovers which) {
  std::error_code ignored;
  ForEachEntry(DescriptorPath(directory.Fd()), ignored, [&](const fs::directory_entry& entry) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kTemporaryPrefix)) {
      RemoveLeftover(directory.Fd(), name.c_str(), which);
    }
  });
}

}  // namespace varnel::utils

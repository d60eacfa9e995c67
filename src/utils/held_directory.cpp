#include "utils/held_directory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "utils/last_error.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// Before Linux 5.6.
UniqueFd OpenStepByStep(const fs::path& path) {
  UniqueFd fd(::open("/", kDirectory));
  for (const fs::path& name : path.relative_path()) {
    if (fd) {
      fd.Reset(::openat(fd.Get(), name.c_str(), kDirectory | O_NOFOLLOW));
    }
  }
  return fd;
}

UniqueFd OpenNoLinks(const fs::path& path) {
  open_how how{};
  how.flags = kDirectory;
  how.resolve = RESOLVE_NO_SYMLINKS;
  UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
  return fd || errno != ENOSYS ? std::move(fd) : OpenStepByStep(path);
}

bool IsSame(const struct statx& a, const struct statx& b) {
  const auto both = a.stx_mask & b.stx_mask;
  return a.stx_ino == b.stx_ino && a.stx_dev_major == b.stx_dev_major &&
         a.stx_dev_minor == b.stx_dev_minor &&
         ((both & STATX_MNT_ID) == 0 || a.stx_mnt_id == b.stx_mnt_id);
}

}  // namespace

HeldDirectory::HeldDirectory(UniqueFd fd, fs::path path)
    : fd_(std::move(fd)), path_(std::move(path)) {}

std::optional<HeldDirectory> HeldDirectory::Make(UniqueFd fd, const fs::path& path,
                                                 std::error_code& error) {
  error = fd ? std::error_code() : LastError();
  if (error) {
    return std::nullopt;
  }
  return HeldDirectory(std::move(fd), path);
}

std::optional<HeldDirectory> HeldDirectory::Open(const fs::path& path, std::error_code& error) {
  return Make(UniqueFd(::open(path.c_str(), kDirectory)), path, error);
}

std::optional<HeldDirectory> HeldDirectory::OpenWithoutLinks(const fs::path& path,
                                                             std::error_code& error) {
  return Make(OpenNoLinks(path), path, error);
}

std::optional<HeldDirectory> HeldDirectory::OpenIn(const std::string& name,
                                                   std::error_code& error) const {
  return Make(UniqueFd(::openat(Fd(), name.c_str(), kDirectory | O_NOFOLLOW)), path_ / name, error);
}

bool HeldDirectory::IsStillThere() const {
  constexpr unsigned kAsked = STATX_INO | STATX_MNT_ID;
  struct statx held {};
  struct statx named {};
  return ::statx(Fd(), "", AT_EMPTY_PATH, kAsked, &held) == 0 &&
         ::statx(AT_FDCWD, path_.c_str(), 0, kAsked, &named) == 0 && IsSame(held, named);
}

std::error_code HeldDirectory::Sync() const {
  // Some file systems of USB drives cannot sync a directory and say EINVAL.
  return ::fsync(Fd()) == 0 || errno == EINVAL ? std::error_code{} : LastError();
}

std::optional<FilePlace> FilePlace::Of(const fs::path& path, std::error_code& error) {
  const fs::path parent = path.parent_path();
  auto directory = HeldDirectory::Open(parent.empty() ? fs::path(".") : parent, error);
  if (!directory) {
    return std::nullopt;
  }
  return FilePlace{std::move(*directory), path.filename().string()};
}

}  // namespace varnel::utils

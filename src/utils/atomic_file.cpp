#include "utils/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "utils/owned.h"
#include "utils/write_all.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

/// No program knows a longer one, and it must fit into a name together with the rest.
constexpr size_t kMaxEnding = 32;

std::error_code LastError() {
  return {errno, std::generic_category()};
}

fs::path DirectoryOf(const fs::path& target) {
  const fs::path parent = target.parent_path();
  return parent.empty() ? fs::path(".") : parent;
}

/// Makes a uniquely named file of mode 0600 beside the target.
UniqueFd OpenTemporary(const fs::path& target, fs::path& temporary) {
  std::string ending = FileEnding(target);
  if (ending.size() > kMaxEnding) {
    ending.clear();
  }
  std::string name = (DirectoryOf(target) / (".varnel-XXXXXX" + ending)).string();
  UniqueFd fd(::mkostemps(name.data(), static_cast<int>(ending.size()), O_CLOEXEC));
  if (fd) {
    temporary = name;
  }
  return fd;
}

std::error_code Publish(int fd, mode_t mode, const fs::path& temporary, const fs::path& target,
                        Durability durability) {
  const bool synced = durability == Durability::kPowerFailure;
  if (::fchmod(fd, mode) != 0 || (synced && ::fsync(fd) != 0) ||
      ::rename(temporary.c_str(), target.c_str()) != 0) {
    return LastError();
  }
  return synced ? SyncDirectory(DirectoryOf(target)) : std::error_code{};
}

bool IsRegular(int fd) {
  struct stat info {};
  return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

std::error_code SyncDirectory(const fs::path& directory) {
  const UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    return LastError();
  }
  // Some file systems of USB drives cannot sync a directory and say EINVAL.
  return ::fsync(fd.Get()) == 0 || errno == EINVAL ? std::error_code{} : LastError();
}

std::error_code MakeDirectories(const fs::path& directory) {
  if (::mkdir(directory.c_str(), 0777) == 0) {
    return SyncDirectory(DirectoryOf(directory));
  }
  std::error_code error = LastError();
  if (error == std::errc::file_exists) {
    std::error_code ignored;
    return fs::is_directory(directory, ignored) ? std::error_code{} : error;
  }
  if (error != std::errc::no_such_file_or_directory || DirectoryOf(directory) == directory) {
    return error;
  }
  error = MakeDirectories(DirectoryOf(directory));
  return error ? error : MakeDirectories(directory);
}

std::error_code ReplaceSymlink(const fs::path& target, const fs::path& link) {
  const fs::path temporary = DirectoryOf(link) / (".varnel-" + link.filename().string());
  ::unlink(temporary.c_str());
  if (::symlink(target.c_str(), temporary.c_str()) != 0) {
    return LastError();
  }
  if (::rename(temporary.c_str(), link.c_str()) != 0) {
    const std::error_code error = LastError();
    ::unlink(temporary.c_str());
    return error;
  }
  return SyncDirectory(DirectoryOf(link));
}

std::string FileEnding(const fs::path& file) {
  const std::string name = file.filename().string();
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? "" : name.substr(dot);
}

std::error_code WriteFileAtomically(const fs::path& target, std::string_view bytes, mode_t mode,
                                    Durability durability) {
  fs::path temporary;
  const UniqueFd fd = OpenTemporary(target, temporary);
  if (!fd) {
    return LastError();
  }
  std::error_code error = WriteAll(fd.Get(), bytes);
  if (!error) {
    error = Publish(fd.Get(), mode, temporary, target, durability);
  }
  if (error) {
    ::unlink(temporary.c_str());
  }
  return error;
}

ReplacementFile::ReplacementFile(fs::path target, fs::path temporary, mode_t mode)
    : target_(std::move(target)), temporary_(std::move(temporary)), mode_(mode) {}

std::optional<ReplacementFile> ReplacementFile::Create(const fs::path& target, mode_t mode,
                                                       std::error_code& error) {
  fs::path temporary;
  if (!OpenTemporary(target, temporary)) {
    error = LastError();
    return std::nullopt;
  }
  error.clear();
  return ReplacementFile(target, std::move(temporary), mode);
}

ReplacementFile::ReplacementFile(ReplacementFile&& other) noexcept
    : target_(std::move(other.target_)),
      temporary_(std::exchange(other.temporary_, fs::path())),
      mode_(other.mode_) {}

ReplacementFile& ReplacementFile::operator=(ReplacementFile&& other) noexcept {
  if (this != &other) {
    Discard();
    target_ = std::move(other.target_);
    temporary_ = std::exchange(other.temporary_, fs::path());
    mode_ = other.mode_;
  }
  return *this;
}

ReplacementFile::~ReplacementFile() {
  Discard();
}

void ReplacementFile::Discard() noexcept {
  if (!temporary_.empty()) {
    ::unlink(temporary_.c_str());
  }
}

std::error_code ReplacementFile::Commit() {
  // Opened again by name: the other program may have put a new file there. Never through a link,
  // never a device.
  const UniqueFd fd(
      ::open(temporary_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) {
    return LastError();
  }
  if (!IsRegular(fd.Get())) {
    return std::make_error_code(std::errc::invalid_argument);
  }
  const std::error_code error =
      Publish(fd.Get(), mode_, temporary_, target_, Durability::kPowerFailure);
  if (!error) {
    temporary_.clear();
  }
  return error;
}

std::optional<std::string> ReadSmallFile(const fs::path& path, size_t max_bytes) {
  // Non-blocking, so that a FIFO in the file's place cannot hang the caller.
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd || !IsRegular(fd.Get())) {
    return std::nullopt;
  }
  std::string content;
  std::array<char, 4096> buffer;
  for (;;) {
    const ssize_t got = ::read(fd.Get(), buffer.data(), buffer.size());
    if (got == 0) {
      return content;
    }
    if (got < 0 && errno != EINTR) {
      return std::nullopt;
    }
    content.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (content.size() > max_bytes) {
      return std::nullopt;
    }
  }
}

}  // namespace varnel::utils

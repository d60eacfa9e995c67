#include "utils/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "utils/held_directory.h"
#include "utils/last_error.h"
#include "utils/owned.h"
#include "utils/temporary_name.h"
#include "utils/write_all.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

fs::path DirectoryOf(const fs::path& target) {
  const fs::path parent = target.parent_path();
  return parent.empty() ? fs::path(".") : parent;
}

/// Makes a uniquely named file of mode 0600 beside the target.
UniqueFd OpenTemporary(const fs::path& target, fs::path& temporary) {
  const fs::path directory = DirectoryOf(target);
  std::string name;
  UniqueFd fd(MakeTemporary(name, [&directory](const char* free) {
    return CreateHeldFile(AT_FDCWD, (directory / free).c_str());
  }));
  if (fd) {
    temporary = directory / name;
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
  std::error_code error;
  const auto held = HeldDirectory::Open(directory, error);
  return held ? held->Sync() : error;
}

std::error_code MakeDirectories(const fs::path& directory) {
  if (::mkdir(directory.c_str(), 0700) == 0) {
    return ::chmod(directory.c_str(), 0755) == 0 ? SyncDirectory(DirectoryOf(directory))
                                                 : LastError();
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
  const fs::path temporary = DirectoryOf(link) / (kTemporaryPrefix + link.filename().string());
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

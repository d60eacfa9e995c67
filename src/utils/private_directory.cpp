#include "utils/private_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "utils/last_error.h"
#include "utils/temporary_name.h"

namespace varnel::utils {
namespace {

/// Somebody who may write to the parent could have put another in its place at once.
bool IsOursAlone(int fd) {
  struct stat info {};
  return ::fstat(fd, &info) == 0 && info.st_uid == ::geteuid() && (info.st_mode & 0077U) == 0;
}

bool IsRegular(int fd) {
  struct stat info {};
  return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

std::optional<PrivateDirectory> PrivateDirectory::Create(const std::filesystem::path& parent,
                                                         std::error_code& error) {
  auto held = HeldDirectory::Open(parent, error);
  if (!held) {
    return std::nullopt;
  }
  PrivateDirectory made(std::move(*held));
  std::string name;
  const auto make = [&made](const char* free) { return made.MakeOwn(free); };
  if (MakeTemporary(name, make) != 0) {
    error = LastError();
    return std::nullopt;
  }
  made.name_ = std::move(name);
  return made;
}

/// -1 with errno.
int PrivateDirectory::MakeOwn(const char* name) {
  if (::mkdirat(parent_.Fd(), name, 0700) != 0) {
    return -1;
  }
  std::error_code error;
  auto own = parent_.OpenIn(name, error);
  if (own && !IsOursAlone(own->Fd())) {
    error = std::make_error_code(std::errc::permission_denied);
  } else if (own && !HoldTemporary(parent_.Fd(), name, own->Fd())) {
    error = std::make_error_code(std::errc::file_exists);
  }
  if (error == std::errc::no_such_file_or_directory) {
    error = std::make_error_code(std::errc::file_exists);  // taken for a leftover: another name
  }
  if (error) {
    ::unlinkat(parent_.Fd(), name, AT_REMOVEDIR);
    errno = error.value();
    return -1;
  }
  own_ = std::move(own);
  return 0;
}

PrivateDirectory::~PrivateDirectory() {
  if (own_ && own_->Fd() >= 0) {
    RemoveFilesIn(Fd());
    ::unlinkat(parent_.Fd(), name_.c_str(), AT_REMOVEDIR);
  }
}

UniqueFd PrivateDirectory::OpenResult(const std::string& name, std::error_code& error) const {
  UniqueFd file(
      ::openat(Fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  error = file ? std::error_code() : LastError();
  if (file && !IsRegular(file.Get())) {
    error = std::make_error_code(std::errc::invalid_argument);
    file.Reset();
  }
  return file;
}

std::error_code PrivateDirectory::Publish(const std::string& name, const std::string& target,
                                          mode_t mode) const {
  std::error_code error;
  const UniqueFd file = OpenResult(name, error);
  if (!file) {
    return error;
  }
  if (::fchmod(file.Get(), mode) != 0 || ::fsync(file.Get()) != 0 ||
      ::renameat(Fd(), name.c_str(), parent_.Fd(), target.c_str()) != 0) {
    return LastError();
  }
  return parent_.Sync();
}

}  // namespace varnel::utils

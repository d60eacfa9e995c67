#include "utils/new_file.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "utils/temporary_name.h"

namespace varnel::utils {
namespace {

std::error_code LastError() {
  return {errno, std::generic_category()};
}

std::error_code Gone() {
  return std::make_error_code(std::errc::no_such_file_or_directory);
}

}  // namespace

std::optional<NewFile> NewFile::Create(const FilePlace& place, std::error_code& error) {
  const int directory = place.directory.Fd();
  NewFile made(place);
  made.file_.Reset(::openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (!made.file_) {
    made.file_.Reset(MakeTemporary(made.temporary_, [directory](const char* name) {
      return ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }));
  }
  if (!made.file_) {
    error = LastError();
    made.temporary_.clear();
    return std::nullopt;
  }
  error.clear();
  return made;
}

NewFile::~NewFile() {
  if (!temporary_.empty()) {
    ::unlinkat(place_->directory.Fd(), temporary_.c_str(), 0);
  }
}

std::error_code NewFile::Link(const std::string& name) const {
  const std::string self = "/proc/self/fd/" + std::to_string(Fd());
  const int linked =
      ::linkat(AT_FDCWD, self.c_str(), place_->directory.Fd(), name.c_str(), AT_SYMLINK_FOLLOW);
  return linked == 0 ? std::error_code{} : LastError();
}

std::error_code NewFile::TakeName() {
  const int directory = place_->directory.Fd();
  if (temporary_.empty()) {
    const std::error_code error = Link(place_->name);
    if (error != std::errc::file_exists) {
      return error;
    }
    // A link cannot replace. Only between these two calls there is something to be left behind.
    if (MakeTemporary(temporary_, [this](const char* name) { return Link(name) ? -1 : 0; }) != 0) {
      temporary_.clear();
      return LastError();
    }
  }
  if (::renameat(directory, temporary_.c_str(), directory, place_->name.c_str()) != 0) {
    return LastError();
  }
  temporary_.clear();
  return {};
}

std::error_code NewFile::Publish(mode_t mode) {
  if (::fchmod(Fd(), mode) != 0 || ::fsync(Fd()) != 0) {
    return LastError();
  }
  if (!place_->directory.IsStillThere()) {
    return Gone();
  }
  std::error_code error = TakeName();
  if (!error) {
    error = place_->directory.Sync();
  }
  return error || place_->directory.IsStillThere() ? error : Gone();
}

std::error_code CopyRest(int from, int to) {
  constexpr size_t kAtOnce = size_t{1} << 20U;
  for (;;) {
    const ssize_t copied = ::sendfile(to, from, nullptr, kAtOnce);
    if (copied == 0) {
      return {};
    }
    if (copied < 0 && errno != EINTR) {
      return LastError();
    }
  }
}

}  // namespace varnel::utils

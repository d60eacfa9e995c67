#include "utils/new_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "utils/descriptor_path.h"
#include "utils/last_error.h"
#include "utils/temporary_name.h"
#include "utils/write_all.h"

namespace varnel::utils {
namespace {

std::error_code Gone() {
  return std::make_error_code(std::errc::no_such_file_or_directory);
}

/// Some file systems cannot send from file to file.
std::error_code CopyRestByHand(int from, int to) {
  std::array<char, 65'536> buffer;
  std::error_code error;
  while (!error) {
    const ssize_t got = ::read(from, buffer.data(), buffer.size());
    if (got == 0) {
      break;
    }
    if (got > 0) {
      error = WriteAll(to, {buffer.data(), static_cast<size_t>(got)});
    } else if (errno != EINTR) {
      error = LastError();
    }
  }
  return error;
}

}  // namespace

std::optional<NewFile> NewFile::Create(const FilePlace& place, std::error_code& error) {
  const int directory = place.directory.Fd();
  NewFile made(place);
  made.file_.Reset(::openat(directory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (made.file_) {
    // For the moment in which it has a temporary name.
    (void)::flock(made.file_.Get(), LOCK_EX | LOCK_NB);
    error.clear();
    return made;
  }
  // What a power failure left of an earlier one is found only here: nobody remembers the places.
  RemoveLeftovers(place.directory);
  error = made.MakeNamed();
  return error ? std::nullopt : std::optional(std::move(made));
}

std::error_code NewFile::MakeNamed() {
  const int directory = place_->directory.Fd();
  UniqueFd named(MakeTemporary(
      temporary_, [directory](const char* name) { return CreateHeldFile(directory, name); }));
  if (!named) {
    temporary_.clear();
    return LastError();
  }
  file_ = std::move(named);
  return {};
}

NewFile::~NewFile() {
  if (!temporary_.empty()) {
    ::unlinkat(place_->directory.Fd(), temporary_.c_str(), 0);
  }
}

std::error_code NewFile::Link(const std::string& name) const {
  const std::string self = DescriptorPath(Fd());
  const int linked =
      ::linkat(AT_FDCWD, self.c_str(), place_->directory.Fd(), name.c_str(), AT_SYMLINK_FOLLOW);
  return linked == 0 ? std::error_code{} : LastError();
}

std::error_code NewFile::Finish(mode_t mode) const {
  return ::fchmod(Fd(), mode) == 0 && ::fsync(Fd()) == 0 ? std::error_code{} : LastError();
}

/// For a hardened kernel, or a file system that makes files without names and cannot link them.
std::error_code NewFile::CopyToNamed(mode_t mode) {
  const UniqueFd unnamed = std::move(file_);
  std::error_code error = MakeNamed();
  if (!error && ::lseek(unnamed.Get(), 0, SEEK_SET) < 0) {
    error = LastError();
  }
  if (!error) {
    error = CopyRest(unnamed.Get(), Fd());
  }
  return error ? error : Finish(mode);
}

std::error_code NewFile::TakeTemporaryName(mode_t mode) {
  if (!temporary_.empty()) {
    return {};
  }
  RemoveLeftovers(place_->directory);  // of a power failure at this very place
  if (MakeTemporary(temporary_, [this](const char* name) { return Link(name) ? -1 : 0; }) == 0) {
    return {};
  }
  temporary_.clear();
  return CopyToNamed(mode);
}

std::error_code NewFile::TakeName(mode_t mode) {
  if (temporary_.empty() && !Link(place_->name)) {
    return {};
  }
  // A link cannot replace. Only between these two calls there is something to be left behind.
  if (const std::error_code error = TakeTemporaryName(mode)) {
    return error;
  }
  const int directory = place_->directory.Fd();
  if (::renameat(directory, temporary_.c_str(), directory, place_->name.c_str()) != 0) {
    return LastError();
  }
  temporary_.clear();
  return {};
}

std::error_code NewFile::Publish(mode_t mode) {
  std::error_code error = Finish(mode);
  if (error) {
    return error;
  }
  if (!place_->directory.IsStillThere()) {
    return Gone();
  }
  error = TakeName(mode);
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
    if (copied < 0 && (errno == EINVAL || errno == ENOSYS)) {
      return CopyRestByHand(from, to);
    }
    if (copied < 0 && errno != EINTR) {
      return LastError();
    }
  }
}

}  // namespace varnel::utils

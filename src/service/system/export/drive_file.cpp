#include "service/system/export/drive_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "utils/descriptor_path.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/temporary_name.h"
#include "utils/write_all.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "COLLM";
/// Others may read what is on a drive; where it knows no modes nothing comes of it.
constexpr mode_t kMode = 0644;
/// So much is on its way to a drive that is slower than we are, and so much again waits for it.
constexpr uint64_t kOnTheWay = uint64_t{8} << 20U;
/// What every device reads past the cache in.
constexpr size_t kAlignment = 4096;
constexpr size_t kPiece = size_t{1} << 20U;

struct Free {
  void operator()(char* memory) const { std::free(memory); }
};

std::unique_ptr<char, Free> AlignedPiece() {
  std::unique_ptr<char, Free> piece(static_cast<char*>(std::aligned_alloc(kAlignment, kPiece)));
  if (!piece) throw std::bad_alloc();
  return piece;
}

/// What was written and synced leaves the cache; where the file system can, reading passes it too.
utils::UniqueFd OpenPastCache(int file) {
  ::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  const std::string path = utils::DescriptorPath(file);
  utils::UniqueFd direct(::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  return direct ? std::move(direct) : utils::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

/// Some file systems open a file so and then cannot read it.
bool LeaveDirect(int file) {
  const int flags = ::fcntl(file, F_GETFL);
  return flags >= 0 && (flags & O_DIRECT) != 0 && ::fcntl(file, F_SETFL, flags & ~O_DIRECT) == 0;
}

ssize_t ReadAt(int file, char* piece, uint64_t place) {
  ssize_t got = 0;
  do {
    got = ::pread(file, piece, kPiece, static_cast<off_t>(place));
  } while (got < 0 && (errno == EINTR || (errno == EINVAL && LeaveDirect(file))));
  return got;
}

}  // namespace

DriveFile::DriveFile(const utils::HeldDirectory& drive, std::error_code& error) : drive_(drive) {
  file_.Reset(utils::MakeTemporary(
      name_, [&drive](const char* name) { return utils::CreateHeldFile(drive.Fd(), name); }));
  error = file_ ? std::error_code() : utils::LastError();
  if (error) name_.clear();
}

DriveFile::~DriveFile() {
  if (!name_.empty()) ::unlinkat(drive_.Fd(), name_.c_str(), 0);
}

std::error_code DriveFile::Append(std::string_view bytes) {
  if (const std::error_code error = utils::WriteAll(file_.Get(), bytes)) return error;
  sum_.Add(bytes);
  const uint64_t before = std::exchange(digest_.bytes, digest_.bytes + bytes.size());
  return before / kOnTheWay == digest_.bytes / kOnTheWay ? std::error_code{} : WriteOut();
}

/// Memory that waits for a slow drive is missing elsewhere, and whoever gives up would wait for all
/// of it.
std::error_code DriveFile::WriteOut() const {
  const auto written = static_cast<off_t>(digest_.bytes);
  constexpr auto kPart = static_cast<off_t>(kOnTheWay);
  constexpr unsigned kDone =
      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  int told = ::sync_file_range(file_.Get(), 0, 0, SYNC_FILE_RANGE_WRITE);
  if (told == 0 && written > kPart)
    told = ::sync_file_range(file_.Get(), 0, written - kPart, kDone);
  // What is told here is not told again by the sync.
  const bool failed = told != 0 && (errno == EIO || errno == ENOSPC || errno == EDQUOT);
  return failed ? utils::LastError() : std::error_code{};
}

std::error_code DriveFile::Publish(const std::string& name) {
  std::error_code error = Finish();
  if (!error) error = ReadBack();
  if (!error) error = TakeName(name);
  if (!error) error = drive_.Sync();
  if (!error && ::syncfs(drive_.Fd()) != 0) error = utils::LastError();
  if (!error) error = CheckNamed(name);
  if (!error) name_.clear();
  return error;
}

std::error_code DriveFile::Finish() {
  digest_.sha256 = sum_.Hex();
  (void)::fchmod(file_.Get(), kMode);
  return ::fsync(file_.Get()) == 0 ? std::error_code{} : utils::LastError();
}

std::error_code DriveFile::ReadBack() const {
  const utils::UniqueFd file = OpenPastCache(file_.Get());
  if (!file) return utils::LastError();
  const auto piece = AlignedPiece();
  utils::Sha256 sum;
  uint64_t bytes = 0;
  for (ssize_t got = 1; got > 0; bytes += static_cast<uint64_t>(got)) {
    got = ReadAt(file.Get(), piece.get(), bytes);
    if (got < 0) return utils::LastError();
    sum.Add({piece.get(), static_cast<size_t>(got)});
  }
  if (bytes == digest_.bytes && sum.Hex() == digest_.sha256) return {};
  VLOG_ERROR(kTag, "The drive does not give back what was written to it");
  return std::make_error_code(std::errc::io_error);
}

std::error_code DriveFile::TakeName(const std::string& name) {
  const int drive = drive_.Fd();
  int taken = ::renameat2(drive, name_.c_str(), drive, name.c_str(), RENAME_NOREPLACE);
  if (taken != 0 && (errno == EINVAL || errno == ENOSYS)) {
    struct stat other {};
    if (::fstatat(drive, name.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0)
      return std::make_error_code(std::errc::file_exists);
    taken = ::renameat(drive, name_.c_str(), drive, name.c_str());
  }
  if (taken != 0) return utils::LastError();
  name_ = name;
  return {};
}

std::error_code DriveFile::CheckNamed(const std::string& name) const {
  struct stat file {};
  if (::fstatat(drive_.Fd(), name.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0)
    return utils::LastError();
  const bool is_whole =
      S_ISREG(file.st_mode) && static_cast<uint64_t>(file.st_size) == digest_.bytes;
  return is_whole ? std::error_code{} : std::make_error_code(std::errc::io_error);
}

}  // namespace varnel::service

#include "service/system/export/drive_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <vector>

#include "service/system/export/drive_file.h"
#include "utils/descriptor_path.h"
#include "utils/free_space.h"
#include "utils/last_error.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

constexpr size_t kPiece = size_t{256} << 10U;
/// For the note and what the directory takes.
constexpr uint64_t kBeside = uint64_t{64} << 10U;

std::error_code Append(DriveFile& file, int from, const std::function<bool()>& stopped) {
  std::vector<char> piece(kPiece);
  for (;;) {
    if (stopped()) return std::make_error_code(std::errc::operation_canceled);
    const ssize_t got = ::read(from, piece.data(), piece.size());
    if (got == 0) return {};
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return utils::LastError();
    const std::error_code error = file.Append({piece.data(), static_cast<size_t>(got)});
    if (error) return error;
  }
}

std::string NoteOn(const utils::FileDigest& archive, const std::string& name) {
  const nlohmann::json note{{"file", name}, {"size", archive.bytes}, {"sha256", archive.sha256}};
  return note.dump() + "\n";
}

}  // namespace

bool DriveWriter::IsFree(const ExportNames& names) const {
  for (const std::string& name : {names.Archive(), names.Note()}) {
    struct stat other {};
    if (::fstatat(drive_.Fd(), name.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0) return false;
  }
  return true;
}

std::error_code DriveWriter::Try() const {
  std::error_code error;
  const DriveFile file(drive_, error);
  return error;
}

bool DriveWriter::HasRoomFor(int archive) const {
  struct stat file {};
  return ::fstat(archive, &file) == 0 &&
         utils::EnoughFreeSpace(utils::DescriptorPath(drive_.Fd()),
                                static_cast<uint64_t>(file.st_size) + kBeside);
}

std::error_code DriveWriter::Write(const std::filesystem::path& archive,
                                   const ExportNames& names) const {
  const utils::UniqueFd from(::open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!from) return utils::LastError();
  if (!HasRoomFor(from.Get())) return std::make_error_code(std::errc::no_space_on_device);
  if (const std::error_code error = WriteBoth(from.Get(), names)) return error;
  return drive_.IsStillThere() ? std::error_code{}
                               : std::make_error_code(std::errc::no_such_device);
}

std::error_code DriveWriter::WriteBoth(int archive, const ExportNames& names) const {
  std::error_code error;
  DriveFile file(drive_, error);
  if (!error) error = Append(file, archive, stopped_);
  if (error) return error;
  error = file.Publish(names.Archive());
  return error ? error : WriteNote(NoteOn(file.Digest(), names.Archive()), names);
}

std::error_code DriveWriter::WriteNote(const std::string& text, const ExportNames& names) const {
  std::error_code error;
  DriveFile file(drive_, error);
  if (!error) error = file.Append(text);
  if (!error) error = file.Publish(names.Note());
  // Without its note it would be taken for one that is still being written.
  if (error) ::unlinkat(drive_.Fd(), names.Archive().c_str(), 0);
  return error;
}

}  // namespace varnel::service

#include "virtual_board/camera/camera_files.h"

#include <fcntl.h>
#include <sys/file.h>

#include <fstream>
#include <system_error>

#include "virtual_board/common/files.h"

namespace varnel::board {

namespace {
constexpr std::uintmax_t kJournalLimit = std::uintmax_t{1} << 20;
}  // namespace

bool CameraFiles::EditFaults(const std::function<std::string(const std::string&)>& edit) const {
  // The lock ends with the descriptor.
  const Fd lock(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock || ::flock(lock.Get(), LOCK_EX) != 0) return false;
  return ReplaceFile(Faults(), edit(ReadFile(Faults())));
}

void CameraFiles::Note(const std::string& line) const {
  std::error_code missing;
  const bool full = std::filesystem::file_size(Journal(), missing) > kJournalLimit && !missing;
  std::ofstream(Journal(), full ? std::ios::trunc : std::ios::app) << line + "\n";
}

}  // namespace varnel::board

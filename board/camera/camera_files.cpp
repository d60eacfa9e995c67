#include "virtual_board/camera/camera_files.h"

#include <fstream>
#include <system_error>

#include "virtual_board/common/files.h"

namespace varnel::board {

namespace {
constexpr std::uintmax_t kJournalLimit = std::uintmax_t{1} << 20;
}  // namespace

bool CameraFiles::EditFaults(const std::function<std::string(const std::string&)>& edit) const {
  return EditFile(Faults(), edit);
}

void CameraFiles::Note(const std::string& line) const {
  std::error_code missing;
  const bool full = std::filesystem::file_size(Journal(), missing) > kJournalLimit && !missing;
  std::ofstream(Journal(), full ? std::ios::trunc : std::ios::app) << line + "\n";
}

}  // namespace varnel::board

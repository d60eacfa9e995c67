#include "service/agent/serial_number_file.h"

#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "MA_AGENT";
constexpr size_t kMaxBytes = 4096;

bool MakeDirectory(const fs::path& directory) {
  const std::error_code error = utils::MakeDirectories(directory);
  if (error) VLOG_ERROR(kTag, "Cannot create directory: {}", error.message());
  return !error;
}

}  // namespace

void UpdateSerialNumberFile(const fs::path& file, const std::string& serial_number) {
  if (serial_number.empty() || serial_number == "--") return;
  if (!MakeDirectory(file.parent_path())) {
    VLOG_ERROR(kTag, "Failed to create directory: {}", file.parent_path().string());
    return;
  }
  if (utils::ReadSmallFile(file, kMaxBytes) == serial_number) {
    VLOG_INFO(kTag, "SN already matches. No update needed.");
  } else if (const auto error = utils::WriteFileAtomically(file, serial_number)) {
    VLOG_ERROR(kTag, "Failed to open SN file: {}", error.message());
  } else {
    VLOG_INFO(kTag, "Successfully updated SN in: {}", file.string());
  }
}

}  // namespace varnel::service

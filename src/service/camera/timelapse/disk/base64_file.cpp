#include "service/camera/timelapse/disk/base64_file.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
/// A thumbnail has some kilobytes.
constexpr size_t kMaxBytes = size_t{16} << 20U;

/// False is logged.
bool IsEncodable(const fs::path& source) {
  std::error_code error;
  const fs::file_status status = fs::status(source, error);
  if (!fs::exists(status)) {
    VLOG_ERROR(kTag, "{} does not exist.", source.string());
    return false;
  }
  if (!fs::is_regular_file(status)) {
    VLOG_ERROR(kTag, "{} is not a file.", source.string());
    return false;
  }
  const uintmax_t size = fs::file_size(source, error);
  if (error) {
    VLOG_ERROR(kTag, "File system error: {}.", error.message());
    return false;
  }
  if (size == 0) VLOG_ERROR(kTag, "{} is empty.", source.string());
  return size > 0;
}

std::string Encoded(const std::string& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

bool ReportWriteError(const std::error_code& error, const fs::path& source,
                      const fs::path& target) {
  if (!error) return true;
  if (error == std::errc::no_space_on_device || error == std::errc::io_error) {
    VLOG_ERROR(kTag, "Failed to write Base64 output for: {}", source.string());
  } else {
    VLOG_ERROR(kTag, "Failed to open output file: {}", target.string());
  }
  return false;
}

}  // namespace

bool WriteBase64(const fs::path& source, const fs::path& target) {
  if (!IsEncodable(source)) return false;
  const std::optional<std::string> bytes = utils::ReadSmallFile(source, kMaxBytes);
  if (!bytes) {
    if (::access(source.c_str(), R_OK) != 0) {
      VLOG_ERROR(kTag, "Failed to open input file: {}", source.string());
    } else {
      VLOG_ERROR(kTag, "Failed to read input file: {}", source.string());
    }
    return false;
  }
  return ReportWriteError(utils::WriteFileAtomically(target, Encoded(*bytes)), source, target);
}

}  // namespace varnel::service

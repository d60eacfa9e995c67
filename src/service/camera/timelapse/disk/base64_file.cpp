#include "service/camera/timelapse/disk/base64_file.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/owned.h"
#include "utils/temporary_name.h"
#include "utils/write_all.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
/// A thumbnail has some kilobytes.
constexpr size_t kMaxBytes = size_t{16} << 20U;
constexpr mode_t kMode = 0644;

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

/// A file beside the target that becomes it when it is whole.
class Successor {
 public:
  explicit Successor(const fs::path& target)
      : target_(target),
        name_((target.parent_path() / (std::string(utils::kTemporaryPrefix) + "XXXXXX")).string()),
        file_(::mkostemp(name_.data(), O_CLOEXEC)) {}
  ~Successor() {
    if (file_) ::unlink(name_.c_str());  // without effect when it has become the target
  }
  Successor(const Successor&) = delete;
  Successor& operator=(const Successor&) = delete;

  int Fd() const { return file_.Get(); }
  bool Publish() const {
    return ::fchmod(Fd(), kMode) == 0 && ::fsync(Fd()) == 0 &&
           ::rename(name_.c_str(), target_.c_str()) == 0 &&
           !utils::SyncDirectory(target_.parent_path());
  }

 private:
  const fs::path& target_;
  std::string name_;
  const utils::UniqueFd file_;
};

bool WriteText(const std::string& text, const fs::path& source, const fs::path& target) {
  const Successor file(target);
  if (file.Fd() < 0) {
    VLOG_ERROR(kTag, "Failed to open output file: {}", target.string());
    return false;
  }
  if (utils::WriteAll(file.Fd(), text)) {
    VLOG_ERROR(kTag, "Failed to write Base64 output for: {}", source.string());
    return false;
  }
  if (file.Publish()) return true;
  VLOG_ERROR(kTag, "Failed to flush Base64 output for: {}", source.string());
  return false;
}

bool EncodeFile(const fs::path& source, const fs::path& target) {
  if (!IsEncodable(source)) return false;
  const std::optional<std::string> bytes = utils::ReadSmallFile(source, kMaxBytes);
  if (bytes) return WriteText(Encoded(*bytes), source, target);
  if (::access(source.c_str(), R_OK) != 0) {
    VLOG_ERROR(kTag, "Failed to open input file: {}", source.string());
  } else {
    VLOG_ERROR(kTag, "Failed to read input file: {}", source.string());
  }
  return false;
}

}  // namespace

bool WriteBase64(const fs::path& source, const fs::path& target) {
  try {
    return EncodeFile(source, target);
  } catch (const fs::filesystem_error& error) {
    VLOG_ERROR(kTag, "File system error: {}.", error.code().message());
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Unknown error: {}.", utils::LogText(error.what()));
  }
  return false;
}

}  // namespace varnel::service

#include "service/system/upgrade/firmware_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "utils/atomic_file.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/temporary_name.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "UPGM";
constexpr const char* kFirmware = ".bin";
constexpr const char* kPart = ".bin.part";
constexpr const char* kPartRecord = ".bin.part.json";
constexpr mode_t kMode = 0700;

/// The version that a file's name speaks of; nothing for a file of another kind.
std::optional<std::string> VersionOf(const std::string& name) {
  for (const char* ending : {kPartRecord, kPart, kFirmware}) {
    const size_t length = std::string_view(ending).size();
    if (name.size() > length && name.ends_with(ending)) return name.substr(0, name.size() - length);
  }
  return std::nullopt;
}

std::error_code MakeOurs(const fs::path& directory) {
  if (::mkdir(directory.c_str(), kMode) == 0) return utils::SyncDirectory(directory.parent_path());
  if (errno != EEXIST) return utils::LastError();
  struct stat info {};
  if (::lstat(directory.c_str(), &info) != 0) return utils::LastError();
  if (!S_ISDIR(info.st_mode)) return std::make_error_code(std::errc::not_a_directory);
  if (info.st_uid != ::geteuid()) return std::make_error_code(std::errc::permission_denied);
  if ((info.st_mode & 07777U) != kMode && ::chmod(directory.c_str(), kMode) != 0)
    return utils::LastError();
  return {};
}

}  // namespace

FirmwareStore::FirmwareStore(const fs::path& parent) : directory_(parent / ".tmp_upgrade") {}

bool FirmwareStore::Prepare() const {
  std::error_code error = utils::MakeDirectories(directory_.parent_path());
  if (!error) error = MakeOurs(directory_);
  if (error) {
    VLOG_ERROR(kTag, "Create temporary directory {} error, reason is {}", directory_.string(),
               error.message());
    return false;
  }
  utils::RemoveLeftovers(directory_);
  return true;
}

fs::path FirmwareStore::Firmware(const std::string& fullversion) const {
  return directory_ / (fullversion + kFirmware);
}

fs::path FirmwareStore::Part(const std::string& fullversion) const {
  return directory_ / (fullversion + kPart);
}

fs::path FirmwareStore::PartRecord(const std::string& fullversion) const {
  return directory_ / (fullversion + kPartRecord);
}

std::error_code FirmwareStore::KeepDescription(std::string_view text) const {
  const fs::path fetched = directory_ / "_remote_firmware_desc.json";
  std::error_code error = utils::WriteFileAtomically(fetched, text, 0600);
  if (!error) fs::rename(fetched, directory_ / "remote_firmware_desc.json", error);
  return error;
}

void FirmwareStore::RemoveOthers(
    const std::string& fullversion,
    const std::function<bool(const std::string& fullversion)>& in_use) const {
  std::error_code error;
  fs::directory_iterator entry(directory_, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const auto version = VersionOf(entry->path().filename().string());
    if (!version || *version == fullversion || in_use(*version)) continue;
    VLOG_INFO(kTag, "Remove old firmware file {}", utils::LogText(entry->path().string()));
    std::error_code failure;
    fs::remove(entry->path(), failure);
  }
}

void FirmwareStore::RemoveFirmware(const std::string& fullversion) const {
  std::error_code error;
  fs::remove(Firmware(fullversion), error);
}

void FirmwareStore::RemovePart(const std::string& fullversion) const {
  std::error_code error;
  fs::remove(PartRecord(fullversion), error);
  fs::remove(Part(fullversion), error);
}

}  // namespace varnel::service

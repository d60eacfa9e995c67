#include "service/system/collection/working_directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string_view>
#include <system_error>
#include <utility>

#include "utils/directory_entries.h"
#include "utils/last_error.h"
#include "utils/local_time.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kTag = "COLLE";
constexpr std::string_view kPrefix = ".tmp_sysinfo_";
constexpr mode_t kMode = 0700;
constexpr int kTries = 30;
/// The names differ by the second.
constexpr std::chrono::milliseconds kRetryPause = 200ms;

std::string NameNow(const utils::Clock& clock) {
  const auto now = std::chrono::system_clock::to_time_t(clock.WallNow());
  return std::string(kPrefix) + utils::LocalTimeDigits(now).value_or("0");
}

/// Only a directory of its own: nobody can have put another one or a link there before.
std::error_code MakeNew(const fs::path& path) {
  return ::mkdir(path.c_str(), kMode) == 0 ? std::error_code{} : utils::LastError();
}

}  // namespace

std::optional<WorkingDirectory> WorkingDirectory::Make(const fs::path& parent,
                                                       utils::Clock& clock) {
  fs::path path = parent / NameNow(clock);
  std::error_code error = MakeNew(path);
  for (int i = 0; i < kTries && error == std::errc::file_exists; ++i) {
    VLOG_WARN(kTag, "{} exists, retry.", path.string());
    clock.SleepFor(kRetryPause);
    path = parent / NameNow(clock);
    error = MakeNew(path);
  }
  if (!error) {
    WorkingDirectory made(path);
    error = MakeNew(made.Content());
    if (!error) return made;
  }
  VLOG_ERROR(kTag, "Create working directory {} failed, reason: {}", path.string(),
             error.message());
  return std::nullopt;
}

WorkingDirectory::WorkingDirectory(WorkingDirectory&& other) noexcept
    : path_(std::exchange(other.path_, {})) {}

WorkingDirectory::~WorkingDirectory() {
  if (path_.empty()) return;
  VLOG_INFO(kTag, "Delete the collected products");
  std::error_code error;
  fs::remove_all(path_, error);
  if (error) {
    VLOG_ERROR(kTag, "Delete collection directory '{}' failed, reason: {}", path_.string(),
               error.message());
  }
}

void RemoveOldWorkingDirectories(const fs::path& parent) {
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(parent, error)) {
    if (!entry.path().filename().string().starts_with(kPrefix)) continue;
    std::error_code removal;
    fs::remove_all(entry.path(), removal);
    if (removal) {
      VLOG_ERROR(kTag, "Delete collection directory '{}' failed, reason: {}", entry.path().string(),
                 removal.message());
    }
  }
}

}  // namespace varnel::service

#include "service/system/collection/source_copies.h"

#include <sys/stat.h>

#include <chrono>
#include <system_error>
#include <utility>

#include "utils/held_directory.h"
#include "utils/last_error.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using SteadyTime = std::chrono::steady_clock::time_point;

constexpr const char* kTag = "COLLE";
constexpr const char* kFileName = "file";

uint64_t MillisecondsSince(SteadyTime begin) {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now() - begin)
                                   .count());
}

}  // namespace

SourceCopies::SourceCopies(fs::path directory, CopySetup setup,
                           std::function<void(ItemRecord record)> told)
    : directory_(std::move(directory)), copier_(std::move(setup)), told_(std::move(told)) {}

SourceDesk::Copy SourceCopies::Copy(const std::string& source, const ItemRecord& item) {
  const SteadyTime begin = std::chrono::steady_clock::now();
  auto record = std::make_shared<ItemRecord>(item);
  fs::path copy;
  const bool there = Fill(source, copy, *record);
  auto end = [this, begin, record](const fs::path* path) {
    delete path;
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
    record->milliseconds = MillisecondsSince(begin);
    told_(std::move(*record));
  };
  const SourceDesk::Copy held(new fs::path(std::move(copy)), std::move(end));
  return there ? held : nullptr;
}

bool SourceCopies::Fill(const std::string& source, fs::path& copy, ItemRecord& record) {
  std::error_code error;
  const fs::file_status status = fs::status(source, error);
  if (!fs::exists(status)) {
    VLOG_WARN(kTag, "{} does not exist.", source);
    record.why_left_out = source + " does not exist";
    return false;
  }
  if (::mkdir(directory_.c_str(), 0700) != 0) error = utils::LastError();
  const auto target =
      error ? std::nullopt : utils::HeldDirectory::OpenWithoutLinks(directory_, error);
  if (!target) {
    VLOG_ERROR(kTag, "Create temporary directory {} failed, reason: {}", directory_.string(),
               error.message());
    record.why_left_out = error.message();
    return false;
  }
  const bool is_directory = fs::is_directory(status);
  const CopyOutcome outcome = is_directory ? copier_.CopyDirectory(source, *target)
                                           : copier_.CopyFile(source, *target, kFileName);
  copy = is_directory ? directory_ : directory_ / kFileName;
  record.status = "done";
  record.masked = outcome.masked;
  record.left_out = outcome.left_out;
  return is_directory || fs::exists(copy, error);
}

}  // namespace varnel::service

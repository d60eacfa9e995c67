#include "service/camera/timelapse/disk/film_store.h"

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

#include "service/camera/timelapse/disk/film_links.h"
#include "service/camera/timelapse/disk/work_directories.h"
#include "utils/atomic_file.h"
#include "utils/directory_entries.h"
#include "utils/file_lock.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using hal_adapter::HalStatus;
using nlohmann::json;

constexpr const char* kTag = "TLP";

HalStatus NotFound(const std::string& index) {
  VLOG_ERROR(kTag, "The instance {} has not found, do nothing.", utils::LogText(index));
  return HalStatus::kInvalidParameter;
}

}  // namespace

FilmStore::FilmStore(const TimelapsePaths& paths, utils::Clock& clock)
    : paths_(paths), description_(paths), clock_(clock) {}

struct FilmStore::Opened {
  utils::FileLock lock;
};

std::optional<FilmStore::Opened> FilmStore::Open(std::chrono::seconds limit) const {
  auto lock = utils::FileLock::Acquire(paths_.Lock(), limit, clock_);
  if (lock) return Opened{std::move(*lock)};
  VLOG_ERROR(kTag, "Failed to acquire file lock: {}", lock.Why());
  return std::nullopt;
}

std::string FilmStore::AddRecord(const json& record) const {
  std::optional<json> description = description_.LoadOrStartNew();
  if (!description) return "the description file cannot be read";
  json& instances = (*description)["instances"];
  const auto found = FindRecord(instances, RecordText(record, "date_index"));
  if (found != instances.end()) {
    *found = record;
  } else {
    instances.push_back(record);
  }
  return description_.Write(std::move(*description)) == HalStatus::kSuccess
             ? std::string()
             : "the description file cannot be written";
}

std::string FilmStore::Publish(const json& record) const {
  const auto opened = Open(kLockLimit);
  if (!opened) return "the description file is locked";
  std::error_code ignored;
  if (!fs::is_directory(RecordText(record, "timelapse_dir"), ignored))
    return "it was deleted meanwhile";
  std::string problem = AddRecord(record);
  if (problem.empty()) MakeFilmLinks(paths_, record, true);
  return problem;
}

std::optional<json> FilmStore::List(const TimelapseQuery& query) const {
  std::optional<json> loaded = EmptyDescription();
  std::error_code error;
  if (!fs::exists(paths_.root, error)) {
    VLOG_INFO(kTag, "The timelapse root temporary directory {} does not exist, set count to 0.",
              paths_.root.string());
  } else {
    const auto opened = Open(kListLockLimit);
    loaded = opened ? description_.LoadForListing() : std::nullopt;
  }
  return loaded ? std::optional(ListFilms(*loaded, query)) : std::nullopt;
}

utils::Result<json, HalStatus> FilmStore::Find(const std::string& index) const {
  const auto opened = Open(kLockLimit);
  if (!opened) return HalStatus::kFailure;
  auto description = description_.LoadExisting();
  if (!description) return description.Why();
  json& instances = (*description)["instances"];
  const auto found = FindRecord(instances, index);
  if (found == instances.end()) return NotFound(index);
  return std::move(*found);
}

void FilmStore::RepairLinks() const {
  std::error_code error;
  if (!fs::exists(paths_.Description(), error)) return;
  const auto opened = Open(kListLockLimit);
  const std::optional<json> description = opened ? description_.LoadForListing() : std::nullopt;
  if (!description) return;
  for (const json* record : ShownRecords(*description)) MakeFilmLinks(paths_, *record, false);
}

std::optional<std::vector<std::string>> FilmStore::Unlisted(
    std::vector<std::string> indices) const {
  const auto opened = Open(kLockLimit);
  const std::optional<json> description = opened ? description_.LoadForListing() : std::nullopt;
  if (!description) return std::nullopt;
  for (const json* record : ShownRecords(*description))
    std::erase(indices, RecordText(*record, "date_index"));
  return indices;
}

HalStatus FilmStore::RemoveRecord(const std::string& index) const {
  auto description = description_.LoadExisting();
  if (!description) return description.Why();
  json& instances = (*description)["instances"];
  if (FindRecord(instances, index) == instances.end()) return NotFound(index);
  for (auto found = FindRecord(instances, index); found != instances.end();
       found = FindRecord(instances, index)) {
    instances.erase(found);
  }
  return description_.Write(std::move(*description));
}

bool FilmStore::SetAside(const std::string& index) const {
  const fs::path directory = paths_.root / index;
  std::error_code error;
  if (!fs::is_directory(directory, error)) return true;
  RemoveCurrentLink(paths_, index);
  fs::rename(directory, paths_.root / (kDeletedPrefix + index), error);
  if (!error) error = utils::SyncDirectory(paths_.root);
  if (error) {
    VLOG_ERROR(kTag, "Delete instance directory '{}' failed, reason: {}", directory.string(),
               error.message());
  }
  return !error;
}

HalStatus FilmStore::CompleteDeletion(const std::string& index) const {
  const fs::path deleted = paths_.root / (kDeletedPrefix + index);
  RemoveFilmLinks(paths_, index);
  // Its content goes before the record: on a full disk that is what makes room to write.
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(deleted, error)) {
    fs::remove_all(entry.path(), error);
    if (error) {
      VLOG_ERROR(kTag, "Delete instance directory '{}' failed, reason: {}", deleted.string(),
                 error.message());
    }
  }
  const HalStatus status = RemoveRecord(index);
  // The empty directory stays as a mark as long as the record does.
  const bool gone = status == HalStatus::kSuccess || status == HalStatus::kInvalidParameter ||
                    status == HalStatus::kFileNotFound;
  if (gone) fs::remove(deleted, error);
  return status;
}

HalStatus FilmStore::DeleteLocked(const std::string& index) const {
  auto description = description_.LoadExisting();
  if (!description) return description.Why();
  json& instances = (*description)["instances"];
  if (FindRecord(instances, index) == instances.end()) return NotFound(index);
  if (!IsTimelapseIndex(index)) return RemoveRecord(index);
  // From here on the film is gone, whatever interrupts us: the next start completes it.
  return SetAside(index) ? CompleteDeletion(index) : HalStatus::kFailure;
}

HalStatus FilmStore::Delete(const std::string& index) const {
  std::error_code error;
  if (!fs::exists(paths_.root, error)) {
    VLOG_ERROR(kTag, "File {} not found.", paths_.Description().string());
    return HalStatus::kFileNotFound;
  }
  const auto opened = Open(kLockLimit);
  return opened ? DeleteLocked(index) : HalStatus::kFailure;
}

void FilmStore::CompleteDeletions() const {
  std::vector<std::string> indices;
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(paths_.root, error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kDeletedPrefix))
      indices.push_back(name.substr(std::string_view(kDeletedPrefix).size()));
  }
  if (indices.empty()) return;
  const auto opened = Open(kListLockLimit);
  if (!opened) return;  // they keep their marks
  for (const std::string& index : indices)
    if (IsTimelapseIndex(index)) (void)CompleteDeletion(index);  // what fails keeps its mark
}

}  // namespace varnel::service

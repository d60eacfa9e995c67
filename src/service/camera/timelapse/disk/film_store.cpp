#include "service/camera/timelapse/disk/film_store.h"

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

#include "service/camera/timelapse/disk/json_file.h"
#include "service/camera/timelapse/disk/work_directory.h"
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
constexpr size_t kMaxThumbnailBytes = size_t{16} << 20U;

json EmptyDescription() {
  return {{"count", 0}, {"instances", json::array()}};
}

bool IsDescription(const json& value) {
  return value.is_object() && value.contains("instances") && value["instances"].is_array();
}

std::string TextOf(const json& record, const char* key) {
  if (!record.is_object()) return {};
  const auto value = record.find(key);
  return value != record.end() && value->is_string() ? value->get<std::string>() : std::string();
}

auto FindIndex(json& instances, const std::string& index) {
  return std::find_if(instances.begin(), instances.end(),
                      [&](const json& record) { return TextOf(record, "date_index") == index; });
}

void SetCount(json& description) {
  description["count"] = description["instances"].size();
}

json Number(const json& record, const char* key) {
  const auto value = record.find(key);
  return value != record.end() && value->is_number() ? *value : json(0);
}

json VideoSize(const json& record) {
  std::error_code error;
  const uintmax_t size = fs::file_size(TextOf(record, "video_path"), error);
  if (error) VLOG_WARN(kTag, "Get video file size error: {}", error.message());
  return error ? 0 : size;
}

/// The records that can be shown, the newest first.
std::vector<const json*> Shown(const json& description) {
  std::vector<const json*> records;
  for (const json& record : description["instances"]) {
    if (IsTimelapseIndex(TextOf(record, "date_index"))) records.push_back(&record);
  }
  std::stable_sort(records.begin(), records.end(), [](const json* a, const json* b) {
    return TextOf(*a, "date_index") > TextOf(*b, "date_index");
  });
  return records;
}

HalStatus NotFound(const std::string& index) {
  VLOG_ERROR(kTag, "The instance {} has not found, do nothing.", utils::LogText(index));
  return hal_adapter::kHalInvalidParameter;
}

}  // namespace

FilmStore::FilmStore(const TimelapsePaths& paths, utils::Clock& clock)
    : paths_(paths), clock_(clock) {}

struct FilmStore::Opened {
  utils::FileLock lock;
};

std::optional<FilmStore::Opened> FilmStore::Open(std::chrono::seconds limit) const {
  std::string problem;
  auto lock = utils::FileLock::Acquire(paths_.Lock(), limit, clock_, problem);
  if (lock) return Opened{std::move(*lock)};
  VLOG_ERROR(kTag, "Failed to acquire file lock: {}", problem);
  return std::nullopt;
}

json FilmStore::LoadExisting(HalStatus& status) const {
  JsonFile file = ReadJsonFile(kTag, paths_.Description());
  status = hal_adapter::kHalSuccess;
  if (file.state == JsonFile::State::kRead && IsDescription(file.value))
    return std::move(file.value);
  status = hal_adapter::kHalFileFormatError;
  if (file.state == JsonFile::State::kMissing) {
    VLOG_ERROR(kTag, "File {} not found.", paths_.Description().string());
    status = hal_adapter::kHalFileNotFound;
  } else if (file.state == JsonFile::State::kUnreadable) {
    status = hal_adapter::kHalFailure;
  } else if (file.value.is_object() && file.value.contains("instances")) {
    VLOG_ERROR(kTag, "The 'instances' is not array.");
  } else {
    VLOG_ERROR(kTag, "The content of the description file is illegal, do nothing.");
  }
  return {};
}

std::optional<json> FilmStore::LoadForListing() const {
  JsonFile file = ReadJsonFile(kTag, paths_.Description());
  if (file.state == JsonFile::State::kUnreadable) return std::nullopt;
  if (file.state == JsonFile::State::kMissing) {
    VLOG_INFO(kTag, "The description file {} does not exist, set count to 0.",
              paths_.Description().string());
    return EmptyDescription();
  }
  if (file.state != JsonFile::State::kRead || !IsDescription(file.value)) {
    VLOG_WARN(kTag, "The content of the description file is illegal, use a new description file.");
    return EmptyDescription();
  }
  VLOG_INFO(kTag, "Parsed the description file successfully.");
  return std::move(file.value);
}

std::optional<json> FilmStore::LoadOrStartNew() const {
  JsonFile file = ReadJsonFile(kTag, paths_.Description());
  if (file.state == JsonFile::State::kUnreadable) return std::nullopt;
  if (file.state == JsonFile::State::kMissing) return EmptyDescription();
  if (file.state == JsonFile::State::kRead && IsDescription(file.value))
    return std::move(file.value);
  VLOG_WARN(kTag, "The content of the description file is illegal, use a new description file.");
  std::error_code error;
  fs::rename(paths_.Description(), paths_.Description().string() + ".bad", error);
  if (!error) return EmptyDescription();
  VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
  return std::nullopt;
}

HalStatus FilmStore::Write(const json& description) const {
  const std::string text = ToText(description);
  const std::error_code error = text.size() > kMaxJsonFileBytes
                                    ? std::make_error_code(std::errc::file_too_large)
                                    : utils::WriteFileAtomically(paths_.Description(), text);
  if (!error) return hal_adapter::kHalSuccess;
  VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
  return hal_adapter::kHalFailure;
}

std::string FilmStore::AddRecord(const json& record) const {
  std::optional<json> description = LoadOrStartNew();
  if (!description) return "the description file cannot be read";
  json& instances = (*description)["instances"];
  const auto found = FindIndex(instances, TextOf(record, "date_index"));
  if (found != instances.end()) {
    *found = record;
  } else {
    instances.push_back(record);
  }
  SetCount(*description);
  return Write(*description) == hal_adapter::kHalSuccess ? std::string()
                                                         : "the description file cannot be written";
}

std::string FilmStore::Publish(const json& record) const {
  const auto opened = Open(kLockLimit);
  if (!opened) return "the description file is locked";
  std::error_code ignored;
  if (!fs::is_directory(TextOf(record, "timelapse_dir"), ignored))
    return "it was deleted meanwhile";
  std::string problem = AddRecord(record);
  if (problem.empty()) MakeLinks(record, true);
  return problem;
}

json FilmStore::Item(const json& record, bool thumbnail_inline) const {
  const std::string index = TextOf(record, "date_index");
  json item = {{"date_index", index},
               {"gcode_name", TextOf(record, "gcode_name")},
               {"gcode_path", TextOf(record, "gcode_path")},
               {"generate_date", TextOf(record, "generate_date")},
               {"unix_timestamp_s", Number(record, "unix_timestamp_s")},
               {"video_duration", TextOf(record, "video_duration")},
               {"video_url", kWebUrl + VideoLinkName(index)},
               {"video_size", VideoSize(record)}};
  if (thumbnail_inline) {
    const fs::path text = fs::path(TextOf(record, "timelapse_dir")) / "thumbnail_base64.txt";
    item["thumbnail_base64"] =
        "data:image/jpeg;base64," + utils::ReadSmallFile(text, kMaxThumbnailBytes).value_or("");
  } else {
    item["thumbnail_path"] = kWebUrl + ThumbnailLinkName(index);
  }
  return item;
}

json FilmStore::List(const TimelapseQuery& query) const {
  std::optional<json> loaded = EmptyDescription();
  std::error_code error;
  if (!fs::exists(paths_.root, error)) {
    VLOG_INFO(kTag, "The timelapse root temporary directory {} does not exist, set count to 0.",
              paths_.root.string());
  } else {
    const auto opened = Open(kListLockLimit);
    loaded = opened ? LoadForListing() : std::nullopt;
  }
  return loaded ? Page(*loaded, query) : json();
}

json FilmStore::Page(const json& description, const TimelapseQuery& query) const {
  const std::vector<const json*> records = Shown(description);
  const size_t rows = query.all ? records.size() : query.page_rows;
  // Divided and not multiplied: a page number may be any.
  const bool beyond = rows == 0 || query.page_index - 1 > records.size() / rows;
  const size_t first = beyond ? records.size() : (query.page_index - 1) * rows;
  json items = json::array();
  for (size_t i = first; i < records.size() && i - first < rows; ++i)
    items.push_back(Item(*records[i], query.thumbnail_inline));
  const size_t count = items.size();
  return {{"total_count", records.size()},
          {"page_index", query.page_index},
          {"page_rows", rows},
          {"count", count},
          {"instances", std::move(items)}};
}

HalStatus FilmStore::Find(const std::string& index, json& record) const {
  const auto opened = Open(kLockLimit);
  if (!opened) return hal_adapter::kHalFailure;
  HalStatus status = hal_adapter::kHalSuccess;
  json description = LoadExisting(status);
  if (status != hal_adapter::kHalSuccess) return status;
  const auto found = FindIndex(description["instances"], index);
  if (found == description["instances"].end()) return NotFound(index);
  record = std::move(*found);
  return hal_adapter::kHalSuccess;
}

void FilmStore::MakeLinks(const json& record, bool replace) const {
  const std::string index = TextOf(record, "date_index");
  const std::pair<std::string, std::string> links[] = {
      {VideoLinkName(index), TextOf(record, "video_path")},
      {ThumbnailLinkName(index), TextOf(record, "thumbnail_path")}};
  for (const auto& [name, target] : links) {
    const fs::path link = paths_.web / name;
    std::error_code ignored;
    const bool there = fs::symlink_status(link, ignored).type() == fs::file_type::symlink;
    // The description file can be changed by others: nothing else of the board is served.
    const bool ours = fs::path(target).parent_path() == paths_.root / index;
    if (!ours || (there && !replace) || !fs::exists(target, ignored)) continue;
    std::error_code error = utils::MakeDirectories(paths_.web);
    if (!error) error = utils::ReplaceSymlink(target, link);
    if (error)
      VLOG_ERROR(kTag, "Create symlink {} failed, reason: {}", link.string(), error.message());
  }
}

void FilmStore::RepairLinks() const {
  std::error_code error;
  if (!fs::exists(paths_.Description(), error)) return;
  const auto opened = Open(kListLockLimit);
  const std::optional<json> description = opened ? LoadForListing() : std::nullopt;
  if (!description) return;
  for (const json* record : Shown(*description)) MakeLinks(*record, false);
}

void FilmStore::RemoveLinks(const std::string& index) const {
  std::error_code error;
  for (const std::string& name : {VideoLinkName(index), ThumbnailLinkName(index)}) {
    fs::remove(paths_.web / name, error);
    if (error) {
      VLOG_ERROR(kTag, "Delete symlink {} failed, reason: {}", (paths_.web / name).string(),
                 error.message());
    }
  }
  // They may lie on another file system than what tells that they are to go.
  if (fs::exists(paths_.web, error)) error = utils::SyncDirectory(paths_.web);
  if (fs::read_symlink(paths_.Current(), error) == paths_.root / index)
    fs::remove(paths_.Current(), error);
}

HalStatus FilmStore::RemoveRecord(const std::string& index) const {
  HalStatus status = hal_adapter::kHalSuccess;
  json description = LoadExisting(status);
  if (status != hal_adapter::kHalSuccess) return status;
  json& instances = description["instances"];
  if (FindIndex(instances, index) == instances.end()) return NotFound(index);
  for (auto found = FindIndex(instances, index); found != instances.end();
       found = FindIndex(instances, index)) {
    instances.erase(found);
  }
  SetCount(description);
  return Write(description);
}

bool FilmStore::SetAside(const std::string& index) const {
  const fs::path directory = paths_.root / index;
  std::error_code error;
  if (!fs::is_directory(directory, error)) return true;
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
  RemoveLinks(index);
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
  const bool gone = status == hal_adapter::kHalSuccess ||
                    status == hal_adapter::kHalInvalidParameter ||
                    status == hal_adapter::kHalFileNotFound;
  if (gone) fs::remove(deleted, error);
  return status;
}

HalStatus FilmStore::DeleteLocked(const std::string& index) const {
  HalStatus status = hal_adapter::kHalSuccess;
  json description = LoadExisting(status);
  if (status != hal_adapter::kHalSuccess) return status;
  if (FindIndex(description["instances"], index) == description["instances"].end())
    return NotFound(index);
  if (!IsTimelapseIndex(index)) return RemoveRecord(index);
  // From here on the film is gone, whatever interrupts us: the next start completes it.
  return SetAside(index) ? CompleteDeletion(index) : hal_adapter::kHalFailure;
}

HalStatus FilmStore::Delete(const std::string& index) const {
  std::error_code error;
  if (!fs::exists(paths_.root, error)) {
    VLOG_ERROR(kTag, "File {} not found.", paths_.Description().string());
    return hal_adapter::kHalFileNotFound;
  }
  const auto opened = Open(kLockLimit);
  return opened ? DeleteLocked(index) : hal_adapter::kHalFailure;
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
    if (IsTimelapseIndex(index)) (void)CompleteDeletion(index);
}

}  // namespace varnel::service

#include "service/camera/timelapse/disk/film_description.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "service/camera/timelapse/disk/json_file.h"
#include "service/camera/timelapse/disk/work_directory.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using hal_adapter::HalStatus;
using nlohmann::json;

constexpr const char* kTag = "TLP";
/// The last number is used again and again.
constexpr int kMostPutAside = 99;

bool IsDescription(const json& value) {
  return value.is_object() && value.contains("instances") && value["instances"].is_array();
}

}  // namespace

json EmptyDescription() {
  return {{"count", 0}, {"instances", json::array()}};
}

std::string RecordText(const json& record, const char* key) {
  if (!record.is_object()) return {};
  const auto value = record.find(key);
  return value != record.end() && value->is_string() ? value->get<std::string>() : std::string();
}

json::iterator FindRecord(json& instances, const std::string& index) {
  return std::find_if(instances.begin(), instances.end(), [&](const json& record) {
    return RecordText(record, "date_index") == index;
  });
}

std::vector<const json*> ShownRecords(const json& description) {
  std::vector<const json*> records;
  for (const json& record : description["instances"]) {
    if (IsTimelapseIndex(RecordText(record, "date_index"))) records.push_back(&record);
  }
  std::stable_sort(records.begin(), records.end(), [](const json* a, const json* b) {
    return RecordText(*a, "date_index") > RecordText(*b, "date_index");
  });
  return records;
}

utils::Result<json, HalStatus> FilmDescription::LoadExisting() const {
  JsonFile file = ReadJsonFile(kTag, paths_.Description());
  if (file.state == JsonFile::State::kRead && IsDescription(file.value))
    return std::move(file.value);
  if (file.state == JsonFile::State::kMissing) {
    VLOG_ERROR(kTag, "File {} not found.", paths_.Description().string());
    return HalStatus::kFileNotFound;
  }
  if (file.state == JsonFile::State::kUnreadable) return HalStatus::kFailure;
  if (file.value.is_object() && file.value.contains("instances")) {
    VLOG_ERROR(kTag, "The 'instances' is not array.");
  } else {
    VLOG_ERROR(kTag, "The content of the description file is illegal, do nothing.");
  }
  return HalStatus::kFileFormatError;
}

std::optional<json> FilmDescription::LoadForListing() const {
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

std::optional<json> FilmDescription::LoadOrStartNew() const {
  JsonFile file = ReadJsonFile(kTag, paths_.Description());
  if (file.state == JsonFile::State::kUnreadable) return std::nullopt;
  if (file.state == JsonFile::State::kMissing) return EmptyDescription();
  if (file.state == JsonFile::State::kRead && IsDescription(file.value))
    return std::move(file.value);
  VLOG_WARN(kTag, "The content of the description file is illegal, use a new description file.");
  if (PutAside()) return EmptyDescription();
  return std::nullopt;
}

bool FilmDescription::PutAside() const {
  std::error_code error;
  fs::path aside;
  for (int number = 1; number <= kMostPutAside; ++number) {
    aside = paths_.Description().string() + '.' + std::to_string(number) + ".bad";
    if (fs::symlink_status(aside, error).type() == fs::file_type::not_found) break;
  }
  fs::rename(paths_.Description(), aside, error);
  if (error) VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
  return !error;
}

HalStatus FilmDescription::Write(json description) const {
  description["count"] = description["instances"].size();
  const std::string text = ToText(description);
  const std::error_code error = text.size() > kMaxJsonFileBytes
                                    ? std::make_error_code(std::errc::file_too_large)
                                    : utils::WriteFileAtomically(paths_.Description(), text);
  if (!error) return HalStatus::kSuccess;
  VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
  return HalStatus::kFailure;
}

}  // namespace varnel::service

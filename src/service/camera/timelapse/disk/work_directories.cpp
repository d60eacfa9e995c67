#include "service/camera/timelapse/disk/work_directories.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/directory_entries.h"
#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
/// A name that is no index: the scan at start ignores it.
constexpr const char* kBuildingPrefix = ".new_";
constexpr std::chrono::milliseconds kRetryPause{500};
constexpr int kMaxIndexTries = 20;
constexpr size_t kMaxIndexBytes = 64;

int64_t SecondsOf(utils::Clock::WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

bool Exists(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

void ReportRemoval(const fs::path& directory, const std::error_code& error) {
  if (!error) return;
  VLOG_ERROR(kTag, "Remove directory {} failed, reason: {}", directory.string(), error.message());
}

}  // namespace

WorkDirectories::WorkDirectories(const TimelapsePaths& paths, utils::Clock& clock)
    : paths_(paths), clock_(clock) {}

bool WorkDirectories::MakeRoot() const {
  const std::error_code error = utils::MakeDirectories(paths_.root);
  if (error) {
    VLOG_ERROR(kTag, "Create timelapse root temporary directory {} failed, reason: {}",
               paths_.root.string(), error.message());
  }
  return !error;
}

bool WorkDirectories::IsTaken(const std::string& index) const {
  return Exists(paths_.root / index) || Exists(paths_.root / (kBuildingPrefix + index)) ||
         Exists(paths_.root / (kDeletedPrefix + index));
}

std::string WorkDirectories::FreeIndex() const {
  for (int i = 0; i < kMaxIndexTries; ++i) {
    const auto index = utils::LocalTimeDigits(SecondsOf(clock_.WallNow()));
    // Not that of the one before either: a photo or a segment of it may still be on its way.
    if (index && *index != NextIndex() && !IsTaken(*index)) return *index;
    VLOG_WARN(kTag, "{} exists, retry.", index.value_or("(no date)"));
    clock_.SleepFor(kRetryPause);
  }
  return {};
}

bool WorkDirectories::Build(const fs::path& directory, const TimelapseSettings& settings) const {
  std::error_code error;
  fs::remove_all(directory, error);
  error = utils::MakeDirectories(directory);
  if (!error) error = SaveTimelapseSettings(settings, directory / "config.json");
  if (error) {
    VLOG_ERROR(kTag, "Create working directory {} failed, reason: {}", directory.string(),
               error.message());
  }
  return !error && WriteTimelapseState(directory, TimelapseState::kReady);
}

std::shared_ptr<WorkDirectory> WorkDirectories::Create(const TimelapseSettings& settings) {
  const std::string index = MakeRoot() ? FreeIndex() : std::string();
  const fs::path building = paths_.root / (kBuildingPrefix + index);
  const fs::path directory = paths_.root / index;
  std::error_code error;
  bool made = !index.empty() && Build(building, settings);
  if (made) {
    fs::rename(building, directory, error);
    if (!error) error = utils::SyncDirectory(paths_.root);
    if (error) {
      VLOG_ERROR(kTag, "Create working directory {} failed, reason: {}", directory.string(),
                 error.message());
    }
    made = !error;
  }
  if (!made) {
    VLOG_ERROR(kTag, "Timelapse: create working directory failed.");
    if (!index.empty()) fs::remove_all(building, error);
    return nullptr;
  }
  if (!PointAt(index)) {
    (void)Discard(index);
    return nullptr;
  }
  VLOG_INFO(kTag, "Create a new timelapse instance, index is {}.", index);
  return std::make_shared<WorkDirectory>(directory, settings, TimelapseState::kReady);
}

bool WorkDirectories::PointAt(const std::string& index) const {
  const fs::path directory = paths_.root / index;
  if (const std::error_code error = utils::ReplaceSymlink(directory, paths_.Current())) {
    VLOG_ERROR(kTag, "Create symlink to directory {} failed, reason: {}", directory.string(),
               error.message());
  }
  const std::error_code error = utils::WriteFileAtomically(paths_.NextIndex(), index + '\n');
  if (error)
    VLOG_ERROR(kTag, "Record the next index {} failed, reason: {}", index, error.message());
  return !error;
}

std::error_code WorkDirectories::Discard(const std::string& index) const {
  const fs::path aside = paths_.root / (kBuildingPrefix + index);
  std::error_code error;
  fs::remove_all(aside, error);
  fs::rename(paths_.root / index, aside, error);
  if (!error) error = utils::SyncDirectory(paths_.root);
  if (!error) fs::remove_all(aside, error);
  return error;
}

std::shared_ptr<WorkDirectory> WorkDirectories::Open(const std::string& index) const {
  const fs::path directory = paths_.root / index;
  std::error_code error;
  TimelapseState state = TimelapseState::kInitial;
  const char* problem = nullptr;
  if (!IsTimelapseIndex(index) || !fs::is_directory(directory, error)) {
    VLOG_ERROR(kTag, "{} is not exists.", directory.string());
    problem = "no such directory";
  } else if (ReadTimelapseState(directory, state) != StateRecord::kFound) {
    problem = "no usable state record";
  }
  std::optional<TimelapseSettings> settings;
  if (problem == nullptr) settings = LoadTimelapseSettings(directory / "config.json");
  if (problem == nullptr && !settings) problem = "the config file cannot be read";
  if (problem != nullptr) {
    VLOG_ERROR(
        kTag, "Initialize an existing timelapse instance failed, working directory: {}, reason: {}",
        directory.string(), problem);
    return nullptr;
  }
  VLOG_INFO(kTag,
            "Initialize an existing instance, index: {}, state: {}, frame_rate: {}, mode: {}, "
            "gcode_name: {}, gcode_path: {}",
            index, TimelapseStateName(state), settings->frame_rate, settings->mode,
            utils::LogText(settings->gcode_name), utils::LogText(settings->gcode_path));
  return std::make_shared<WorkDirectory>(directory, std::move(*settings), state);
}

std::string WorkDirectories::NextIndex() const {
  std::string index = utils::ReadSmallFile(paths_.NextIndex(), kMaxIndexBytes).value_or("");
  while (index.ends_with('\n')) index.pop_back();
  return IsTimelapseIndex(index) ? index : std::string();
}

std::vector<std::string> WorkDirectories::Indices() const {
  std::vector<std::string> indices;
  std::error_code error;
  const auto entries = utils::DirectoryEntries(paths_.root, error);
  if (error && error != std::errc::no_such_file_or_directory)
    VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
  for (const auto& entry : entries) {
    const std::string name = entry.path().filename().string();
    std::error_code ignored;
    if (IsTimelapseIndex(name) && entry.is_directory(ignored) && !entry.is_symlink(ignored))
      indices.push_back(name);
  }
  std::sort(indices.begin(), indices.end());
  return indices;
}

void WorkDirectories::RemoveUnfinished() const {
  for (const std::string& index : Indices()) RemoveIfUnfinished(index);
}

void WorkDirectories::RemoveIfUnfinished(const std::string& index) const {
  const fs::path directory = paths_.root / index;
  TimelapseState state = TimelapseState::kInitial;
  const StateRecord record = ReadTimelapseState(directory, state);
  if (record == StateRecord::kMissing)
    VLOG_WARN(kTag, "Time-lapse {}: state file is not exists, do nothing.", index);
  if (record != StateRecord::kFound || state != TimelapseState::kActivated) return;
  VLOG_INFO(kTag, "Remove the unfinished time-lapse {}", index);
  const std::error_code error = Discard(index);
  ReportRemoval(directory, error);
  if (!error) VLOG_INFO(kTag, "Remove the unfinished time-lapse {} done.", index);
}

void WorkDirectories::RemoveHalfMade() const {
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(paths_.root, error)) {
    if (!entry.path().filename().string().starts_with(kBuildingPrefix)) continue;
    fs::remove_all(entry.path(), error);
    ReportRemoval(entry.path(), error);
  }
  for (const std::string& index : Indices()) {
    TimelapseState state = TimelapseState::kInitial;
    const fs::path directory = paths_.root / index;
    const bool never_started = ReadTimelapseState(directory, state) == StateRecord::kFound &&
                               state < TimelapseState::kActivated;
    if (never_started) ReportRemoval(directory, Discard(index));
  }
}

}  // namespace varnel::service

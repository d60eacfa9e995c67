#include "service/camera/timelapse/disk/work_directories.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <system_error>
#include <utility>

#include "utils/atomic_file.h"
#include "utils/directory_entries.h"
#include "utils/last_error.h"
#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/mutex.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr std::chrono::milliseconds kRetryPause{500};
constexpr int kMaxIndexTries = 20;
constexpr size_t kMaxIndexBytes = 64;
constexpr mode_t kDirectoryMode = 0755;

int64_t SecondsOf(utils::Clock::WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

/// The store's deletions and the starts of prints change the link from threads of their own.
utils::Mutex& CurrentLinkMutex() {
  static auto* mutex = new utils::Mutex;  // used up to the end of the process
  return *mutex;
}

bool IsThere(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

void ReportRemoval(const fs::path& directory, const std::error_code& error) {
  if (!error) return;
  VLOG_ERROR(kTag, "Remove directory {} failed, reason: {}", directory.string(), error.message());
}

bool ReportCreation(const fs::path& directory, const std::error_code& error) {
  if (!error) return true;
  VLOG_ERROR(kTag, "Create working directory {} failed, reason: {}", directory.string(),
             error.message());
  return false;
}

}  // namespace

void RemoveCurrentLink(const TimelapsePaths& paths, const std::string& index) {
  const utils::MutexLock lock(CurrentLinkMutex());
  std::error_code error;
  if (fs::read_symlink(paths.Current(), error) == paths.root / index)
    fs::remove(paths.Current(), error);
}

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

bool WorkDirectories::Reserve(const std::string& index) const {
  const fs::path building = paths_.root / (kBuildingPrefix + index);
  // Making it is taking it: nobody else gets the same.
  return index != NextIndex() && !IsThere(paths_.root / index) &&
         !IsThere(paths_.root / (kDeletedPrefix + index)) &&
         !IsThere(paths_.root / (kRemovedPrefix + index)) && ::mkdir(building.c_str(), 0700) == 0 &&
         ::chmod(building.c_str(), kDirectoryMode) == 0;
}

std::string WorkDirectories::ReserveIndex() const {
  for (int i = 0; i < kMaxIndexTries; ++i) {
    const auto index = utils::LocalTimeDigits(SecondsOf(clock_.WallNow()));
    errno = 0;
    if (index && Reserve(*index)) return *index;
    if (errno != 0 && errno != EEXIST && errno != ENOENT) {
      (void)ReportCreation(paths_.root / index.value_or(""), utils::LastError());
      return {};
    }
    VLOG_WARN(kTag, "{} exists, retry.", index.value_or("(no date)"));
    clock_.SleepFor(kRetryPause);
  }
  return {};
}

std::string WorkDirectories::Build(const TimelapseSettings& settings) const {
  std::string index = MakeRoot() ? ReserveIndex() : std::string();
  const fs::path building = paths_.root / (kBuildingPrefix + index);
  const bool built =
      !index.empty() &&
      ReportCreation(building, SaveTimelapseSettings(settings, building / "config.json")) &&
      WriteTimelapseState(building, TimelapseState::kReady) && PrepareStop(building);
  if (built) return index;
  VLOG_ERROR(kTag, "Timelapse: create working directory failed.");
  if (!index.empty()) (void)Rename(kBuildingPrefix + index, kRemovedPrefix + index);
  return {};
}

bool WorkDirectories::Rename(const std::string& from, const std::string& to) const {
  std::error_code error;
  fs::rename(paths_.root / from, paths_.root / to, error);
  if (!error) error = utils::SyncDirectory(paths_.root);
  ReportRemoval(paths_.root / from, error);
  return !error;
}

std::shared_ptr<WorkDirectory> WorkDirectories::Publish(const std::string& index,
                                                        const TimelapseSettings& settings) {
  const fs::path directory = paths_.root / index;
  std::error_code error;
  fs::rename(paths_.root / (kBuildingPrefix + index), directory, error);
  if (!error) error = utils::SyncDirectory(paths_.root);
  if (!ReportCreation(directory, error)) {
    VLOG_ERROR(kTag, "Timelapse: create working directory failed.");
    return nullptr;
  }
  if (!PointAt(index)) {
    (void)SetAside(index);
    return nullptr;
  }
  VLOG_INFO(kTag, "Create a new timelapse instance, index is {}.", index);
  auto made = std::make_shared<WorkDirectory>(directory, settings, TimelapseState::kReady);
  const utils::MutexLock lock(mutex_);
  opened_[index] = made;
  return made;
}

void WorkDirectories::PointCurrentAt(const std::string& index) const {
  const utils::MutexLock lock(CurrentLinkMutex());
  const fs::path directory = paths_.root / index;
  if (const std::error_code error = utils::ReplaceSymlink(directory, paths_.Current())) {
    VLOG_ERROR(kTag, "Create symlink to directory {} failed, reason: {}", directory.string(),
               error.message());
  }
}

bool WorkDirectories::PointAt(const std::string& index) const {
  PointCurrentAt(index);
  const std::error_code error = utils::WriteFileAtomically(paths_.NextIndex(), index + '\n');
  if (error)
    VLOG_ERROR(kTag, "Record the next index {} failed, reason: {}", index, error.message());
  return !error;
}

std::shared_ptr<WorkDirectory> WorkDirectories::Open(const std::string& index) {
  const utils::MutexLock lock(mutex_);
  std::erase_if(opened_, [](const auto& one) { return one.second.expired(); });
  const auto found = opened_.find(index);
  auto directory = found != opened_.end() ? found->second.lock() : nullptr;
  if (directory && directory->Exists()) return directory;
  directory = Load(index);
  if (directory) opened_[index] = directory;
  return directory;
}

std::shared_ptr<WorkDirectory> WorkDirectories::Load(const std::string& index) const {
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

std::optional<std::vector<std::string>> WorkDirectories::ListIndices() const {
  std::vector<std::string> indices;
  std::error_code error;
  const auto entries = utils::DirectoryEntries(paths_.root, error);
  if (error && error != std::errc::no_such_file_or_directory) {
    VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
    return std::nullopt;
  }
  for (const auto& entry : entries) {
    const std::string name = entry.path().filename().string();
    std::error_code ignored;
    if (IsTimelapseIndex(name) && entry.is_directory(ignored) && !entry.is_symlink(ignored))
      indices.push_back(name);
  }
  std::sort(indices.begin(), indices.end());
  return indices;
}

std::vector<std::string> WorkDirectories::Indices() const {
  return ListIndices().value_or(std::vector<std::string>());
}

std::optional<std::vector<std::string>> WorkDirectories::IndicesIn(TimelapseState state) const {
  auto indices = ListIndices();
  if (!indices) return std::nullopt;
  std::erase_if(*indices, [&](const std::string& index) {
    return TimelapseStateIn(paths_.root / index) != state;
  });
  return indices;
}

bool WorkDirectories::SetAside(const std::string& index) const {
  RemoveCurrentLink(paths_, index);
  return Rename(index, kRemovedPrefix + index);
}

void WorkDirectories::SetAsideUnfinished(const std::set<std::string>& spared) const {
  for (const std::string& index : Indices())
    if (!spared.contains(index)) SetAsideIfUnfinished(index);
}

void WorkDirectories::SetAsideIfUnfinished(const std::string& index) const {
  TimelapseState state = TimelapseState::kInitial;
  const StateRecord record = ReadTimelapseState(paths_.root / index, state);
  if (record == StateRecord::kMissing)
    VLOG_WARN(kTag, "Time-lapse {}: state file is not exists, do nothing.", index);
  if (record != StateRecord::kFound || state != TimelapseState::kActivated) return;
  VLOG_INFO(kTag, "Remove the unfinished time-lapse {}", index);
  if (SetAside(index)) VLOG_INFO(kTag, "Remove the unfinished time-lapse {} done.", index);
}

void WorkDirectories::SetAsideHalfMade() const {
  const std::string prefix = kBuildingPrefix;
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(paths_.root, error)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(prefix)) continue;
    fs::remove_all(paths_.root / (kRemovedPrefix + name.substr(prefix.size())), error);
    (void)Rename(name, kRemovedPrefix + name.substr(prefix.size()));
  }
  for (const std::string& index : Indices()) {
    const auto state = TimelapseStateIn(paths_.root / index);
    if (state && *state < TimelapseState::kActivated) (void)SetAside(index);
  }
}

void WorkDirectories::RemoveSetAside() const {
  const utils::MutexLock lock(removal_mutex_);
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(paths_.root, error)) {
    if (!entry.path().filename().string().starts_with(kRemovedPrefix)) continue;
    fs::remove_all(entry.path(), error);
    ReportRemoval(entry.path(), error);
  }
}

}  // namespace varnel::service

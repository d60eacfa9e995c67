#include "service/camera/timelapse/disk/work_directory.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <system_error>
#include <utility>

#include "service/camera/timelapse/disk/segment_list.h"
#include "utils/atomic_file.h"
#include "utils/directory_entries.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/temporary_name.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr const char* kStateFile = "state";
constexpr size_t kMaxStateBytes = 64;
constexpr size_t kIndexLength = 14;
constexpr std::array kStateNames{"INITIAL", "READY", "ACTIVATED", "GENERATING", "FINISHED"};

/// The number in "<prefix>NNNNN<ending>".
std::optional<uint32_t> NumberIn(const std::string& name, std::string_view prefix,
                                 std::string_view ending) {
  if (!name.starts_with(prefix) || !name.ends_with(ending) ||
      name.size() <= prefix.size() + ending.size()) {
    return std::nullopt;
  }
  uint32_t number = 0;
  const char* end = name.data() + name.size() - ending.size();
  const auto [rest, error] = std::from_chars(name.data() + prefix.size(), end, number);
  return error == std::errc{} && rest == end ? std::optional(number) : std::nullopt;
}

std::optional<uint32_t> PhotoNumber(const std::string& name) {
  return NumberIn(name, "photo_", ".jpg");
}

std::optional<uint32_t> SegmentNumber(const std::string& name) {
  const auto number = NumberIn(name, "seg_", ".ts");
  return number ? number : NumberIn(name, "seg_", ".avi");
}

bool IsHalfWritten(const std::string& name) {
  return name.starts_with(utils::kTemporaryPrefix);
}

bool IsTemporary(const std::string& name) {
  constexpr std::array kFiles{"cover.jpg",    "cover.ts",     "cover.avi",
                              "filelist.txt", "progress.txt", "allfilelist.txt"};
  return PhotoNumber(name) || SegmentNumber(name) || IsHalfWritten(name) ||
         std::find(kFiles.begin(), kFiles.end(), name) != kFiles.end();
}

}  // namespace

const char* TimelapseStateName(TimelapseState state) {
  const auto number = static_cast<size_t>(state);
  return number < kStateNames.size() ? kStateNames[number] : nullptr;
}

std::optional<TimelapseState> TimelapseStateOf(const std::string& name) {
  const auto found = std::find(kStateNames.begin(), kStateNames.end(), name);
  if (found == kStateNames.end()) return std::nullopt;
  return static_cast<TimelapseState>(found - kStateNames.begin());
}

bool IsTimelapseIndex(const std::string& name) {
  return name.size() == kIndexLength &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

WorkDirectory::WorkDirectory(fs::path directory, TimelapseSettings settings, TimelapseState state)
    : directory_(std::move(directory)), settings_(std::move(settings)), state_(state) {}

bool WorkDirectory::RecordState(TimelapseState state) {
  if (!WriteTimelapseState(directory_, state)) return false;
  state_ = state;
  return true;
}

fs::path WorkDirectory::Photo(uint32_t number) const {
  return directory_ / fmt::format("photo_{:05}.jpg", number);
}

fs::path WorkDirectory::Segment(uint32_t number) const {
  return directory_ / fmt::format("seg_{:05}{}", number, SegmentEnding());
}

fs::path WorkDirectory::CoverSegment() const {
  return directory_ / (std::string("cover") + SegmentEnding());
}

const char* WorkDirectory::SegmentEnding() const {
  constexpr uint32_t kTransportClock = 90'000;
  return kTransportClock % settings_.frame_rate == 0 ? ".ts" : ".avi";
}

fs::path WorkDirectory::Video(size_t frames) const {
  return directory_ /
         fmt::format("timelapse_f{}_r{}_{}.mp4", frames, settings_.frame_rate, settings_.mode);
}

std::vector<uint32_t> WorkDirectory::Photos() const {
  std::vector<uint32_t> numbers;
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(directory_, error)) {
    if (const auto number = PhotoNumber(entry.path().filename().string()))
      numbers.push_back(*number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::vector<uint32_t> WorkDirectory::ListedSegments() const {
  std::set<uint32_t> numbers;
  for (const fs::path& segment : ReadSegmentList(SegmentList())) {
    // By name: whatever a changed list says, only files of this instance get into its film.
    const std::string name = segment.filename().string();
    if (const auto number = SegmentNumber(name)) {
      numbers.insert(*number);
    } else {
      VLOG_ERROR(kTag, "Generate video: segment '{}' invalid, skip.", utils::LogText(name));
    }
  }
  return {numbers.begin(), numbers.end()};
}

std::vector<uint32_t> WorkDirectory::PhotosToEncode() const {
  const std::vector<uint32_t> listed = ListedSegments();
  std::vector<uint32_t> numbers = Photos();
  std::erase_if(numbers, [&](uint32_t number) {
    std::error_code error;
    return std::binary_search(listed.begin(), listed.end(), number) &&
           fs::exists(Segment(number), error);
  });
  return numbers;
}

void WorkDirectory::RemoveFiles(
    const std::function<bool(const std::string& name)>& unwanted) const {
  std::error_code error;
  const auto entries = utils::DirectoryEntries(directory_, error);
  if (error) VLOG_WARN(kTag, "Remove file failed, reason: {}", error.message());
  for (const auto& entry : entries) {
    if (!unwanted(entry.path().filename().string())) continue;
    fs::remove_all(entry.path(), error);
    if (error) VLOG_WARN(kTag, "Remove file failed, reason: {}", error.message());
  }
}

void WorkDirectory::RemoveTemporaryFiles() const {
  RemoveFiles(IsTemporary);
}

void WorkDirectory::RemoveFilmsBut(const fs::path& film) const {
  RemoveFiles([kept = film.filename().string()](const std::string& name) {
    return name.starts_with("timelapse_f") && name.ends_with(".mp4") && name != kept;
  });
}

void WorkDirectory::RemoveHalfWritten() const {
  RemoveFiles(IsHalfWritten);
}

StateRecord ReadTimelapseState(const fs::path& directory, TimelapseState& state) {
  const std::string index = directory.filename().string();
  const fs::path file = directory / kStateFile;
  std::error_code error;
  if (fs::symlink_status(file, error).type() == fs::file_type::not_found)
    return StateRecord::kMissing;
  std::optional<std::string> text = utils::ReadSmallFile(file, kMaxStateBytes);
  if (!text) {
    VLOG_ERROR(kTag, "Time-lapse {}: open state file failed.", index);
    return StateRecord::kUnreadable;
  }
  while (text->ends_with('\n')) text->pop_back();
  const std::optional<TimelapseState> found = TimelapseStateOf(*text);
  if (!found) {
    VLOG_ERROR(kTag, "Set state '{}' failed, do nothing.", utils::LogText(*text));
    VLOG_ERROR(kTag, "Time-lapse {}: read state file error.", index);
    return StateRecord::kUnreadable;
  }
  state = *found;
  return StateRecord::kFound;
}

bool WriteTimelapseState(const fs::path& directory, TimelapseState state) {
  const char* name = TimelapseStateName(state);
  if (name == nullptr) {
    VLOG_ERROR(kTag, "Record state: state is invalid.");
    return false;
  }
  const fs::path file = directory / kStateFile;
  const std::error_code error = utils::WriteFileAtomically(file, std::string(name) + '\n');
  if (!error) return true;
  if (error == std::errc::no_such_file_or_directory) {
    VLOG_ERROR(kTag, "Record state: current directory {} not exist.", directory.string());
  } else if (error == std::errc::permission_denied || error == std::errc::read_only_file_system) {
    VLOG_ERROR(kTag, "Record state: open file '{}' failed.", file.string());
  } else if (error == std::errc::no_space_on_device || error == std::errc::io_error) {
    VLOG_ERROR(kTag, "Record state: write file '{}' failed.", file.string());
  } else {
    VLOG_ERROR(kTag, "Record state: filesystem error: {}", error.message());
  }
  return false;
}

}  // namespace varnel::service

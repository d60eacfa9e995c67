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
constexpr const char* kFailuresFile = "failures";
constexpr size_t kIndexLength = 14;
constexpr size_t kMaxCountBytes = 16;

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

/// A long print has ten thousands of files: their names are looked at one by one.
template <class Look>
void ForEachName(const fs::path& directory, Look look) {
  std::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
    look(it->path().filename().string());
}

bool IsHalfWritten(const std::string& name) {
  return name.starts_with(utils::kTemporaryPrefix);
}

bool IsFilm(const std::string& name) {
  return name.starts_with("timelapse_f") && name.ends_with(".mp4");
}

/// What is made anew from the photos; the list of what was joined is none of it.
bool IsDerived(const std::string& name) {
  constexpr std::array kFiles{"cover.jpg",    "cover.ts",     "cover.avi",
                              "filelist.txt", "progress.txt", kFailuresFile};
  return SegmentNumber(name) || IsHalfWritten(name) ||
         std::find(kFiles.begin(), kFiles.end(), name) != kFiles.end();
}

/// By name: whatever a changed list says, only files of the directory it lies in count.
std::set<uint32_t> NumbersOf(const std::vector<fs::path>& segments, const SkippedLine& skipped) {
  std::set<uint32_t> numbers;
  for (const fs::path& segment : segments) {
    const std::string name = segment.filename().string();
    if (const auto number = SegmentNumber(name)) {
      numbers.insert(*number);
    } else if (skipped) {
      skipped(name);
    }
  }
  return numbers;
}

}  // namespace

bool IsTimelapseIndex(const std::string& name) {
  return name.size() == kIndexLength &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

WorkDirectory::WorkDirectory(fs::path directory, TimelapseSettings settings, TimelapseState state)
    : directory_(std::move(directory)), settings_(std::move(settings)), state_(state) {}

bool WorkDirectory::Exists() const {
  std::error_code error;
  return fs::is_directory(directory_, error);
}

bool WorkDirectory::Advance(TimelapseState state) {
  if (!MayBecome(state_, state)) {
    VLOG_ERROR(kTag, "Record state: state is invalid.");
    return false;
  }
  const bool recorded = state == TimelapseState::kGenerating
                            ? RecordStop(directory_)
                            : WriteTimelapseState(directory_, state);
  // A write whose last step failed may be in force all the same.
  if (!recorded && TimelapseStateIn(directory_) != state) return false;
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
  ForEachName(directory_, [&](const std::string& name) {
    if (const auto number = PhotoNumber(name)) numbers.push_back(*number);
  });
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::optional<std::vector<uint32_t>> WorkDirectory::ListedSegments() const {
  const auto segments = ReadSegmentList(SegmentList(), [](const std::string& line) {
    VLOG_WARN(kTag, "Generate video: unexpected segment record line '{}', skip.",
              utils::LogText(line));
  });
  if (!segments) return std::nullopt;
  const std::set<uint32_t> numbers = NumbersOf(*segments, [](const std::string& name) {
    VLOG_ERROR(kTag, "Generate video: segment '{}' invalid, skip.", utils::LogText(name));
  });
  return std::vector<uint32_t>(numbers.begin(), numbers.end());
}

std::vector<uint32_t> WorkDirectory::PhotosToEncode(uint32_t settled) const {
  std::vector<uint32_t> photos;
  std::vector<uint32_t> encoded;
  ForEachName(directory_, [&](const std::string& name) {
    // Of the ending that the film will ask for: another frame rate may have had another.
    const auto segment = NumberIn(name, "seg_", SegmentEnding());
    if (segment && *segment > settled) encoded.push_back(*segment);
    const auto photo = PhotoNumber(name);
    if (photo && *photo > settled) photos.push_back(*photo);
  });
  std::sort(photos.begin(), photos.end());
  // Only then: the list of a long print is long, and most often a photo is new.
  if (!encoded.empty()) EraseListed(encoded, photos);
  return photos;
}

/// Takes away the photos that have a segment and stand in the list.
void WorkDirectory::EraseListed(std::vector<uint32_t>& encoded,
                                std::vector<uint32_t>& photos) const {
  std::vector<uint32_t> listed;
  (void)ForEachSegment(SegmentList(), [&](std::string_view path) {
    const auto number = SegmentNumber(std::string(path.substr(path.rfind('/') + 1)));
    if (number) listed.push_back(*number);
  });
  std::sort(encoded.begin(), encoded.end());
  std::sort(listed.begin(), listed.end());
  std::erase_if(photos, [&](uint32_t number) {
    return std::binary_search(encoded.begin(), encoded.end(), number) &&
           std::binary_search(listed.begin(), listed.end(), number);
  });
}

fs::path WorkDirectory::FinishedVideo() const {
  fs::path newest;
  fs::file_time_type newest_time = fs::file_time_type::min();
  std::error_code error;
  for (const auto& entry : utils::DirectoryEntries(directory_, error)) {
    std::error_code ignored;
    const fs::file_time_type time = entry.last_write_time(ignored);
    if (!IsFilm(entry.path().filename().string()) || time < newest_time) continue;
    newest = entry.path();
    newest_time = time;
  }
  return newest;
}

uint32_t WorkDirectory::Failures() const {
  const std::string text =
      utils::ReadSmallFile(directory_ / kFailuresFile, kMaxCountBytes).value_or("");
  uint32_t count = 0;
  (void)std::from_chars(text.data(), text.data() + text.size(), count);
  return count;
}

void WorkDirectory::CountFailure() const {
  const std::string text = std::to_string(Failures() + 1) + '\n';
  if (const auto error = utils::WriteFileAtomically(directory_ / kFailuresFile, text))
    VLOG_WARN(kTag, "A failure of {} cannot be counted: {}", Index(), error.message());
}

size_t WorkDirectory::RemoveFiles(
    const std::function<bool(const std::string& name)>& unwanted) const {
  size_t found = 0;
  std::error_code error;
  const auto entries = utils::DirectoryEntries(directory_, error);
  if (error && error != std::errc::no_such_file_or_directory)
    VLOG_WARN(kTag, "Remove file failed, reason: {}", error.message());
  for (const auto& entry : entries) {
    if (!unwanted(entry.path().filename().string())) continue;
    ++found;
    std::error_code ignored;
    const bool directory = entry.is_directory(ignored) && !entry.is_symlink(ignored);
    fs::remove_all(entry.path(), error);
    if (!error) continue;
    if (directory) {
      VLOG_WARN(kTag, "Delete temporary directory '{}' failed, reason: {}", entry.path().string(),
                error.message());
    } else {
      VLOG_WARN(kTag, "Remove file failed, reason: {}", error.message());
    }
  }
  return found;
}

void WorkDirectory::RemoveJoined() const {
  const std::set<uint32_t> joined =
      NumbersOf(ReadSegmentList(AllSegmentsList()).value_or(std::vector<fs::path>()), nullptr);
  const size_t removed = RemoveFiles([&](const std::string& name) {
    const auto photo = PhotoNumber(name);
    return photo ? joined.contains(*photo) : IsDerived(name);
  });
  // It tells which photos may go, so it goes when they have.
  if (removed > 0) (void)utils::SyncDirectory(directory_);
  (void)RemoveFiles([list = AllSegmentsList().filename().string()](const std::string& name) {
    return name == list;
  });
}

void WorkDirectory::RemoveFilmsBut(const fs::path& film) const {
  (void)RemoveFiles([kept = film.filename().string()](const std::string& name) {
    return IsFilm(name) && name != kept;
  });
}

void WorkDirectory::RemoveHalfWritten() const {
  (void)RemoveFiles(IsHalfWritten);
}

}  // namespace varnel::service

#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "service/camera/timelapse/disk/timelapse_settings.h"

namespace varnel::service {

enum class TimelapseState : uint32_t { kInitial, kReady, kActivated, kGenerating, kFinished };

/// "INITIAL", "READY" and so on; null for a number that is no state.
[[nodiscard]] const char* TimelapseStateName(TimelapseState state);
[[nodiscard]] std::optional<TimelapseState> TimelapseStateOf(const std::string& name);

/// Whether a name is that of an instance: fourteen digits.
[[nodiscard]] bool IsTimelapseIndex(const std::string& name);

/// One print's photos on disk, in a work directory that is named by its index. It has no threads;
/// the state may be read by any thread, all else belongs to one at a time.
class WorkDirectory {
 public:
  WorkDirectory(std::filesystem::path directory, TimelapseSettings settings, TimelapseState state);
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

  const std::filesystem::path& Directory() const { return directory_; }
  std::string Index() const { return directory_.filename().string(); }
  const TimelapseSettings& Settings() const { return settings_; }
  TimelapseState State() const { return state_; }

  /// Writes the state record, then takes the state on. False leaves both as they were.
  [[nodiscard]] bool RecordState(TimelapseState state);

  std::filesystem::path Photo(uint32_t number) const;
  std::filesystem::path Segment(uint32_t number) const;
  std::filesystem::path CoverPhoto() const { return directory_ / "cover.jpg"; }
  std::filesystem::path CoverSegment() const;
  std::filesystem::path SegmentList() const { return directory_ / "filelist.txt"; }
  std::filesystem::path AllSegmentsList() const { return directory_ / "allfilelist.txt"; }
  std::filesystem::path Thumbnail() const { return directory_ / "thumbnail.jpg"; }
  std::filesystem::path ThumbnailBase64() const { return directory_ / "thumbnail_base64.txt"; }
  std::filesystem::path Video(size_t frames) const;
  std::filesystem::path Log(const char* name) const { return directory_ / name; }

  /// The photos there are, in order.
  std::vector<uint32_t> Photos() const;
  /// The numbers in the segment list, each once and in order.
  std::vector<uint32_t> ListedSegments() const;
  /// The photos that have no listed segment: what an interrupted print, or an encoder that failed,
  /// left to be encoded.
  std::vector<uint32_t> PhotosToEncode() const;
  /// Removes what a finished film needs no more.
  void RemoveTemporaryFiles() const;
  /// Removes films that earlier attempts left.
  void RemoveFilmsBut(const std::filesystem::path& film) const;
  /// Removes outputs that an interruption cut short.
  void RemoveHalfWritten() const;

 private:
  /// Segments in MPEG-TS join to the exact frame rate when its clock of 90 kHz can tell one frame's
  /// time; those in AVI to any.
  const char* SegmentEnding() const;
  void RemoveFiles(const std::function<bool(const std::string& name)>& unwanted) const;

  const std::filesystem::path directory_;
  const TimelapseSettings settings_;
  std::atomic<TimelapseState> state_;
};

/// The state record of a work directory. Nothing when there is none or it is unusable, which is
/// logged.
enum class StateRecord { kFound, kMissing, kUnreadable };
[[nodiscard]] StateRecord ReadTimelapseState(const std::filesystem::path& directory,
                                             TimelapseState& state);
/// False is logged.
[[nodiscard]] bool WriteTimelapseState(const std::filesystem::path& directory,
                                       TimelapseState state);

}  // namespace varnel::service

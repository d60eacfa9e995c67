#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "service/camera/timelapse/disk/timelapse_settings.h"
#include "service/camera/timelapse/disk/timelapse_state.h"

namespace varnel::service {

/// Whether a name is that of an instance: fourteen digits.
[[nodiscard]] bool IsTimelapseIndex(const std::string& name);

/// One print's photos on disk, in a directory that is named by its index. What is still to be done
/// is read from it, and nowhere else. The state may be read by any thread.
class WorkDirectory {
 public:
  WorkDirectory(std::filesystem::path directory, TimelapseSettings settings, TimelapseState state);
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

  const std::filesystem::path& Path() const { return directory_; }
  std::string Index() const { return directory_.filename().string(); }
  const TimelapseSettings& Settings() const { return settings_; }
  TimelapseState State() const { return state_; }
  /// It was not removed meanwhile.
  bool Exists() const;

  /// The one place where states are recorded: writes the record, then takes the state on. False
  /// leaves both as they were. One thread at a time, and only the state that follows.
  [[nodiscard]] bool Advance(TimelapseState state);

  std::filesystem::path Photo(uint32_t number) const;
  std::filesystem::path Segment(uint32_t number) const;
  std::filesystem::path CoverPhoto() const { return directory_ / "cover.jpg"; }
  std::filesystem::path CoverSegment() const;
  std::filesystem::path SegmentList() const { return directory_ / "filelist.txt"; }
  std::filesystem::path AllSegmentsList() const { return directory_ / "allfilelist.txt"; }
  std::filesystem::path Progress() const { return directory_ / "progress.txt"; }
  std::filesystem::path Thumbnail() const { return directory_ / "thumbnail.jpg"; }
  std::filesystem::path ThumbnailBase64() const { return directory_ / "thumbnail_base64.txt"; }
  std::filesystem::path Video(size_t frames) const;
  std::filesystem::path Log(const char* name) const { return directory_ / name; }

  /// The photos there are, in order.
  std::vector<uint32_t> Photos() const;
  /// The numbers in the segment list, each once and in order; other lines are logged. Nothing when
  /// it cannot be read.
  std::optional<std::vector<uint32_t>> ListedSegments() const;
  /// The photos after `settled` that have no listed segment, in order.
  std::vector<uint32_t> PhotosToEncode(uint32_t settled = 0) const;
  /// The film that was made last; empty: none is there.
  std::filesystem::path FinishedVideo() const;

  /// How often its film could not be made.
  [[nodiscard]] uint32_t Failures() const;
  void CountFailure() const;

  /// Removes what a finished film holds and what it needed; photos that are not in it stay.
  void RemoveJoined() const;
  /// Removes films that earlier attempts left.
  void RemoveFilmsBut(const std::filesystem::path& film) const;
  /// Removes outputs that an interruption cut short.
  void RemoveHalfWritten() const;

 private:
  /// Segments in MPEG-TS join to the exact frame rate when its clock of 90 kHz can tell one frame's
  /// time; those in AVI to any.
  const char* SegmentEnding() const;
  void EraseListed(std::vector<uint32_t>& encoded, std::vector<uint32_t>& photos) const;
  /// How many there were.
  size_t RemoveFiles(const std::function<bool(const std::string& name)>& unwanted) const;

  const std::filesystem::path directory_;
  const TimelapseSettings settings_;
  std::atomic<TimelapseState> state_;
};

}  // namespace varnel::service

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "service/camera/timelapse_paths.h"
#include "utils/safe_exec.h"

namespace varnel::service {

/// How a run of the encoder ended.
enum class EncoderRun { kDone, kFailed, kTimedOut };

/// The runs of ffmpeg and ffprobe, each at the lowest priority and with a time limit. An output is
/// put in place only when the run was successful. Thread-safe.
class VideoEncoder {
 public:
  explicit VideoEncoder(const TimelapsePaths& paths);

  /// Encodes a photo into a segment of one frame.
  [[nodiscard]] EncoderRun EncodeSegment(const std::filesystem::path& photo, uint32_t frame_rate,
                                         const std::filesystem::path& segment) const;
  /// The same for the cover.
  [[nodiscard]] bool EncodeCover(const std::filesystem::path& photo, uint32_t frame_rate,
                                 const std::filesystem::path& segment) const;
  /// 120x90 pixels, JPEG.
  [[nodiscard]] bool MakeThumbnail(const std::filesystem::path& photo,
                                   const std::filesystem::path& thumbnail,
                                   const std::filesystem::path& log) const;
  /// Joins the listed segments into `video` as they are; `progress` tells how far it is.
  [[nodiscard]] bool Join(const std::filesystem::path& list, const std::filesystem::path& progress,
                          const std::filesystem::path& video, const std::filesystem::path& log,
                          size_t frames) const;
  /// Decodes the whole video.
  [[nodiscard]] bool Check(const std::filesystem::path& video, const std::filesystem::path& log,
                           size_t frames) const;
  /// "MM:SS"; "00:00" when it cannot be told.
  [[nodiscard]] std::string Duration(const std::filesystem::path& video) const;

 private:
  EncoderRun Encode(const std::filesystem::path& photo, uint32_t frame_rate,
                    const std::filesystem::path& segment, const char* failure) const;
  utils::SafeExec Ffmpeg() const;
  bool Available() const;

  const TimelapsePaths& paths_;
  const bool available_;
};

}  // namespace varnel::service

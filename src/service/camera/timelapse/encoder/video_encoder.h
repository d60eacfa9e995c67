#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "service/camera/timelapse/encoder/encoder_programs.h"
#include "utils/private_directory.h"
#include "utils/safe_exec.h"

namespace varnel::service {

/// How a run of the encoder ended.
enum class EncoderRun {
  kDone,
  kFailed,  ///< it came to its own end and could not do it
  kTimedOut,
  kNotRun,  ///< not started or killed, or there was no place for the output: tells nothing
};

/// The runs of ffmpeg and ffprobe, each at the lowest priority and with a time limit. They write
/// only into private directories; an output is put in place when the run was successful.
/// Thread-safe.
class VideoEncoder {
 public:
  explicit VideoEncoder(const EncoderPrograms& programs);

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
  /// Joins the listed segments as they are; the film and how far it is appear in `output` under
  /// the names below.
  [[nodiscard]] bool Join(const std::filesystem::path& list, const utils::PrivateDirectory& output,
                          const std::filesystem::path& log, size_t frames) const;
  static constexpr const char* kFilmName = "film.mp4";
  static constexpr const char* kProgressName = "progress.txt";
  /// Decodes the whole video; kFailed when it does not play.
  [[nodiscard]] EncoderRun Check(const std::filesystem::path& video,
                                 const std::filesystem::path& log, size_t frames) const;
  /// The number of frames of a joined video; nothing when it cannot be told.
  [[nodiscard]] std::optional<size_t> FrameCount(const std::filesystem::path& video) const;
  /// "MM:SS"; "00:00" when it cannot be told.
  [[nodiscard]] std::string Duration(const std::filesystem::path& video) const;

 private:
  EncoderRun Encode(const std::filesystem::path& photo, uint32_t frame_rate,
                    const std::filesystem::path& segment, const char* failure) const;
  utils::SafeExec Ffmpeg() const;
  bool Available() const;

  const EncoderPrograms& programs_;
  const bool available_;
};

}  // namespace varnel::service

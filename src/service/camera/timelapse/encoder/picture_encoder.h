#pragma once

#include <cstdint>
#include <filesystem>

#include "service/camera/timelapse/encoder/encoder_run.h"

namespace varnel::service {

/// Encodes a photo into a segment of one frame, which appears under its name when it is whole.
[[nodiscard]] EncoderRun EncodeSegment(const Ffmpeg& ffmpeg, const std::filesystem::path& photo,
                                       uint32_t frame_rate, const std::filesystem::path& segment);
/// The same for the cover.
[[nodiscard]] EncoderRun EncodeCover(const Ffmpeg& ffmpeg, const std::filesystem::path& photo,
                                     uint32_t frame_rate, const std::filesystem::path& segment);
/// 120x90 pixels, JPEG.
[[nodiscard]] EncoderRun MakeThumbnail(const Ffmpeg& ffmpeg, const std::filesystem::path& photo,
                                       const std::filesystem::path& thumbnail,
                                       const std::filesystem::path& log);

}  // namespace varnel::service

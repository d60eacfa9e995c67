#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "hal_interface/hal_records.h"

namespace varnel::hal_adapter {

enum class PhotoStatus {
  kSuccess,
  kCaptureFailed,     ///< no camera, busy for too long, capture error or empty frame
  kNotWritable,       ///< the destination cannot be written
  kConversionFailed,  ///< the frame could not be made a picture
};

/// Says whether there is room to write to this path; it logs when there is not.
using SpaceCheck = std::function<bool(const std::filesystem::path& destination)>;

struct PhotoPaths {
  std::filesystem::path converter = "/usr/bin/ffmpeg";
  std::filesystem::path raw_frame = "/tmp/.capture.bin";
};

/// Puts a frame into a file: a picture for the endings ".jpg", ".jpeg" and ".png" (lower case), the
/// raw bytes for any other. The destination appears whole or stays as it was. One call at a time:
/// all share the raw frame file.
class PhotoWriter {
 public:
  PhotoWriter(PhotoPaths paths, SpaceCheck has_space);

  [[nodiscard]] PhotoStatus Write(const CameraImage& image,
                                  const std::filesystem::path& destination) const;

 private:
  PhotoStatus Convert(const CameraImage& image, const std::filesystem::path& destination) const;
  bool WriteRawFrame(const CameraImage& image) const;
  bool RunConverter(const char* pixel_format, const std::filesystem::path& output) const;

  const PhotoPaths paths_;
  const SpaceCheck has_space_;
};

}  // namespace varnel::hal_adapter

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace varnel::board {

/// One form in which a camera gives its picture.
struct FrameFormat {
  uint32_t pixel_format;  ///< V4L2 fourcc
  std::string_view name;
  std::string_view extension;  ///< of files with such frames
  uint32_t width;
  uint32_t height;
  uint32_t bytes_per_line;  ///< of the first plane
  size_t frame_size;
};

/// One of the board's cameras: what its driver would report.
struct CameraModel {
  std::string_view device_path;
  std::string_view card;
  /// The first one is given to who asks for an unknown one.
  std::span<const FrameFormat> formats;
};

/// Null when no virtual camera stands at that path.
const CameraModel* FindCameraModel(std::string_view device_path);

}  // namespace varnel::board

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace varnel::board {

/// One of the board's cameras: what its driver would report.
struct CameraModel {
  std::string_view device_path;
  std::string_view card;
  std::string_view frame_extension;
  uint32_t pixel_format;    ///< V4L2 fourcc
  uint32_t bytes_per_line;  ///< of the first plane
  uint32_t width;
  uint32_t height;
  size_t frame_size;
};

/// Null when no virtual camera stands at that path.
const CameraModel* FindCameraModel(std::string_view device_path);

}  // namespace varnel::board

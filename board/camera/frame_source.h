#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "virtual_board/camera/camera_files.h"

namespace varnel::board {

/// The pictures in front of a virtual camera. Nothing is remembered in memory: the directory may change at any time,
/// and the scene goes on where it was when a camera is closed and opened again.
class FrameSource {
 public:
  /// Files with another extension or size are not frames of this camera.
  FrameSource(CameraFiles files, std::string extension, size_t frame_size);

  [[nodiscard]] bool HasFrame() const { return Next().has_value(); }
  /// Copies the next frame to `target` (room for one frame). False when there is none.
  bool Deliver(void* target) const;

 private:
  [[nodiscard]] bool IsFrame(const std::filesystem::directory_entry& entry) const;
  /// The name after the last delivered one, or else the first.
  [[nodiscard]] std::optional<std::string> Next() const;

  const CameraFiles files_;
  const std::string extension_;
  const size_t frame_size_;
};

}  // namespace varnel::board

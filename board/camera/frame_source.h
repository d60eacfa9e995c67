#pragma once

#include <optional>
#include <string>

#include "virtual_board/camera/camera_files.h"
#include "virtual_board/camera/camera_model.h"

namespace varnel::board {

/// The pictures in front of a virtual camera. Nothing is remembered in memory: the directory may
/// change at any time, and the scene goes on where it was when a camera is closed and opened again.
class FrameSource {
 public:
  explicit FrameSource(CameraFiles files) : files_(std::move(files)) {}

  [[nodiscard]] bool HasFrame(const FrameFormat& format) const { return Next(format).has_value(); }
  /// Copies the next frame to `target` (room for one frame). False when there is none.
  bool Deliver(const FrameFormat& format, void* target) const;

 private:
  /// The name after the last delivered one, or else the first. Files of another extension or size
  /// do not count.
  [[nodiscard]] std::optional<std::string> Next(const FrameFormat& format) const;

  const CameraFiles files_;
};

}  // namespace varnel::board

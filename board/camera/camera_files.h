#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "virtual_board/common/fd.h"

namespace varnel::board {

/// What the virtual cameras of one board share with whoever drives that board: one directory, which
/// both sides see.
///
/// - `frames/`      raw frames, "*.nv12" and "*.yuyv", shown in the order of their names, over and
/// over
/// - `faults`       faults on demand, read again at every call (see faults.h)
/// - `last-frame`   name of the frame that was delivered last
/// - `journal`      one line for every open, close, stream-on, stream-off and frame
class CameraFiles {
 public:
  explicit CameraFiles(std::filesystem::path directory) : directory_(std::move(directory)) {}

  [[nodiscard]] std::filesystem::path Frames() const { return directory_ / "frames"; }
  [[nodiscard]] std::filesystem::path Faults() const { return directory_ / "faults"; }
  [[nodiscard]] std::filesystem::path LastFrame() const { return directory_ / "last-frame"; }
  [[nodiscard]] std::filesystem::path Journal() const { return directory_ / "journal"; }

  /// Rewrites the fault file while nobody else does: a driver of the board replaces it, the camera
  /// counts it down.
  bool EditFaults(const std::function<std::string(const std::string&)>& edit) const;
  /// Adds one line to the journal, which starts anew when it has grown large.
  void Note(const std::string& line) const;

 private:
  std::filesystem::path directory_;
};

}  // namespace varnel::board

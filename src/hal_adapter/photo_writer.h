#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "hal_adapter/photo_taker.h"
#include "hal_interface/hal_records.h"
#include "utils/board_places.h"
#include "utils/free_space.h"
#include "utils/held_directory.h"
#include "utils/new_file.h"
#include "utils/owned.h"

namespace varnel::hal_adapter {

struct PhotoPaths {
  std::filesystem::path converter = utils::board::kFfmpeg;
  std::filesystem::path raw_frame = "/tmp/.capture.bin";
  /// Pictures are made in directories of our own below this one.
  std::filesystem::path workshop = "/tmp";
};

/// Makes files of frames: a picture for names ending in ".jpg", ".jpeg" and ".png" (lower case),
/// the raw bytes for any other.
class PhotoWriter {
 public:
  PhotoWriter(PhotoPaths paths, utils::SpaceCheck has_space);

  /// False when the place has no room; callable from any thread.
  [[nodiscard]] bool HasRoom(const utils::FilePlace& place) const;
  /// The file for Store(), which is not there yet; nothing when none can be written there. Callable
  /// from any thread.
  [[nodiscard]] std::optional<utils::NewFile> Begin(const utils::FilePlace& place) const;
  /// Makes what a file of that name is to hold, in an open file without a name. One call at a time:
  /// all share the raw frame file.
  [[nodiscard]] PhotoStatus Develop(const CameraImage& image, const std::string& name,
                                    utils::UniqueFd& picture) const;
  /// Puts it into its place, which appears whole or stays as it was. Waits for the disk; callable
  /// from any thread.
  [[nodiscard]] PhotoStatus Store(const utils::UniqueFd& picture, utils::NewFile& file) const;

 private:
  bool WriteRawFrame(const CameraImage& image) const;
  bool Convert(const CameraImage& image, const std::string& picture, int directory) const;
  bool RunConverter(const char* pixel_format, const std::string& picture, int directory) const;

  const PhotoPaths paths_;
  const utils::SpaceCheck has_space_;
};

}  // namespace varnel::hal_adapter

#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>

#include "service/analysis/decision/picture_directory.h"
#include "service/analysis/picture/image_buffer.h"
#include "utils/free_space.h"

namespace varnel::service {

/// How the pictures of one detection are kept.
struct PictureSaving {
  bool original = false;  ///< also as it was captured
  bool positive = false;  ///< also among the positive ones
  size_t limit = 0;       ///< pictures per directory; 0 keeps none
};

/// The pictures that detections leave for people: as captured ("org"), annotated ("det"), crops,
/// and those with a finding once more in "positive", where everyday pictures do not push them out.
/// The pictures of one detection share a running number that goes on after a restart. A failure is
/// logged and never keeps a detection from answering.
class ResultPictures {
 public:
  ResultPictures(std::filesystem::path base, utils::SpaceCheck has_space);

  /// Once. A directory that cannot be made is logged and its pictures are not written.
  void CreateDirectories();

  /// What is kept from here on belongs to another picture.
  void BeginPicture();

  /// Keeps the picture of one detection.
  /// @param source the file as it came: "org" is a copy of its bytes
  /// @param annotated null when there is nothing to be seen on it: "det" is then the same file
  void Save(const std::string& source, const ImageBuffer* annotated, const PictureSaving& saving);

  /// Keeps what is no picture in "org", its first kMaxUnreadable bytes at most.
  void SaveUnreadable(const std::string& source, const PictureSaving& saving);
  static constexpr size_t kMaxUnreadable = size_t{4} << 20U;

  /// Keeps a crop as "printer_detect<number><suffix>.jpg", as long as there are fewer than `limit`;
  /// further ones of the same picture as "printer_detect<number>.2<suffix>.jpg" and so on.
  void SaveCrop(const ImageBuffer& crop, const std::string& suffix, size_t limit);

 private:
  PictureDirectory Create(const std::filesystem::path& path);
  std::string Name();
  bool HasSpace() const { return utils::HasRoom(has_space_, base_ / "org"); }

  const std::filesystem::path base_;
  const utils::SpaceCheck has_space_;
  PictureDirectory org_, det_, crop_, positive_org_, positive_det_;
  uint64_t last_number_ = 0;
  bool numbered_ = false;  ///< last_number_ is the picture's
  int crops_ = 0;          ///< of the picture
};

}  // namespace varnel::service

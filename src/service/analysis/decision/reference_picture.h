#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "service/analysis/network/detection.h"
#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

/// An object that was seen on the first picture of a print.
struct RememberedBox {
  Rect box{-1, -1, -1, -1};
  int32_t cls_id = -1;
};

/// Why a result counts as there before the print.
struct KnownObject {
  RememberedBox remembered;  ///< -1 throughout when nothing was remembered
  double diff_ratio = 0;
  double threshold = 0;
};

/// The printer as it looked when the print began, so that what was there before is not taken for a
/// failure. One algorithm owns it at a time: class ids mean something else to the other.
class ReferencePicture {
 public:
  /// Forgets picture and boxes.
  void Reset(const std::string& why);
  /// The same without a word.
  void Forget();
  /// Copies the picture; `boxes` replace what was remembered.
  void Keep(const std::string& owner, const ImageBuffer& picture, std::vector<RememberedBox> boxes);
  /// Copies a later picture of the same print.
  void Update(const ImageBuffer& picture);

  [[nodiscard]] bool IsOwnedBy(const std::string& owner) const {
    return !picture_.pixels.empty() && owner_ == owner;
  }

  /// Whether a result of this picture was there before.
  ///
  /// With remembered boxes: one has the result's class, a top at most 30 pixels away and an area
  /// above a quarter of the result's, they overlap by 0.8 of either, and the pictures differ by at
  /// most 0.45 inside the result's box. Without: the result lies in the upper 0.7 of the reference,
  /// and the pictures differ by at most 0.2, as the network saw nothing there before.
  [[nodiscard]] std::optional<KnownObject> FindKnown(const Detection& result,
                                                     const ImageBuffer& picture) const;

 private:
  [[nodiscard]] std::optional<KnownObject> Compare(const Detection& result,
                                                   const ImageBuffer& picture,
                                                   const RememberedBox& remembered,
                                                   double threshold) const;

  std::string owner_;
  Image picture_;
  std::vector<RememberedBox> boxes_;
};

}  // namespace varnel::service

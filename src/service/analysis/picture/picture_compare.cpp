#include "service/analysis/picture/picture_compare.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/pixel_rows.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr double kMinContrast = 6;
constexpr int32_t kMinSide = 2;
/// Pixels that one step of the search compares, about.
constexpr int64_t kSearchPixels = 16384;

/// A part of a picture in grey levels, at its place in the picture.
struct Patch {
  Rect place;
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> grey;

  const uint8_t* Row(int32_t y) const {
    return grey.data() + static_cast<size_t>(y) * static_cast<size_t>(width);
  }
  uint8_t* Row(int32_t y) {
    return grey.data() + static_cast<size_t>(y) * static_cast<size_t>(width);
  }
};

Patch EmptyPatch(const Rect& place) {
  Patch patch{place, Width(place), Height(place), {}};
  patch.grey.resize(static_cast<size_t>(patch.width) * static_cast<size_t>(patch.height));
  return patch;
}

Rect Cut(const Rect& box, int32_t width, int32_t height) {
  return {std::clamp(box.left, 0, width), std::clamp(box.top, 0, height),
          std::clamp(box.right, 0, width), std::clamp(box.bottom, 0, height)};
}

Rect Grown(const Rect& box, int32_t by, const ImageBuffer& limits) {
  return Cut({box.left - by, box.top - by, box.right + by, box.bottom + by}, limits.width,
             limits.height);
}

bool IsRgb(const ImageBuffer& image) {
  return image.format == PixelFormat::kRgb888 && image.virt_addr != nullptr;
}

/// `place` lies inside the picture. Rows are blurred across as they are made.
Patch GreyBlurredAcross(const ImageBuffer& image, const Rect& place) {
  Patch patch = EmptyPatch(place);
  const auto width = static_cast<size_t>(patch.width);
  const auto stride = static_cast<size_t>(WidthStride(image));
  std::vector<uint8_t> grey(width);
  for (int32_t y = 0; y < patch.height; ++y) {
    const size_t first =
        static_cast<size_t>(place.top + y) * stride + static_cast<size_t>(place.left);
    GreyRow(image.virt_addr + first * 3, grey.data(), width);
    BlurRow(grey.data(), patch.Row(y), width);
  }
  return patch;
}

void BlurDown(Patch& patch) {
  const auto width = static_cast<size_t>(patch.width);
  std::vector<uint8_t> above(patch.Row(0), patch.Row(0) + width);
  std::vector<uint8_t> own(width);
  for (int32_t y = 0; y < patch.height; ++y) {
    uint8_t* row = patch.Row(y);
    std::copy(row, row + width, own.begin());
    BlurRows(above.data(), own.data(), patch.Row(std::min(y + 1, patch.height - 1)), row, width);
    std::swap(above, own);
  }
}

Patch BlurredGrey(const ImageBuffer& image, const Rect& place) {
  Patch patch = GreyBlurredAcross(image, place);
  BlurDown(patch);
  return patch;
}

/// The two patches and the box that is compared, in the picture's pixels.
struct Comparison {
  Patch reference;
  Patch picture;
  Rect box;

  int32_t Columns() const { return Width(box); }
  int32_t Rows() const { return Height(box); }
  double Pixels() const { return Area(box); }
  const uint8_t* ReferenceRow(int32_t y, int32_t dx, int32_t dy) const {
    return reference.Row(box.top + y + dy - reference.place.top) +
           (box.left + dx - reference.place.left);
  }
  const uint8_t* PictureRow(int32_t y) const {
    return picture.Row(box.top + y - picture.place.top) + (box.left - picture.place.left);
  }
  /// Sum of |p - r| over every `step`th row.
  uint64_t Difference(int32_t dx, int32_t dy, int32_t step) const {
    uint64_t sum = 0;
    for (int32_t y = 0; y < Rows(); y += step)
      sum += RowDifference(PictureRow(y), ReferenceRow(y, dx, dy), static_cast<size_t>(Columns()));
    return sum;
  }
};

struct Offset {
  int32_t dx = 0;
  int32_t dy = 0;
};

/// Where the reference looks most like the picture; without a reason to move, where it is.
Offset BestOffset(const Comparison& both) {
  const Rect& reach = both.reference.place;
  const int32_t step =
      std::max(1, static_cast<int32_t>(int64_t{1} * both.Columns() * both.Rows() / kSearchPixels));
  Offset best;
  uint64_t least = both.Difference(0, 0, step);
  const int32_t lowest = std::min(kCompareReach, reach.bottom - both.box.bottom);
  const int32_t rightmost = std::min(kCompareReach, reach.right - both.box.right);
  for (int32_t dy = std::max(-kCompareReach, reach.top - both.box.top); dy <= lowest; ++dy) {
    for (int32_t dx = std::max(-kCompareReach, reach.left - both.box.left); dx <= rightmost; ++dx) {
      const uint64_t difference = both.Difference(dx, dy, step);
      if (difference < least) {
        least = difference;
        best = {dx, dy};
      }
    }
  }
  return best;
}

double Contrast(const Comparison& both, const Offset& at) {
  uint64_t sum = 0;
  for (int32_t y = 0; y < both.Rows(); ++y)
    sum += RowSum(both.ReferenceRow(y, at.dx, at.dy), static_cast<size_t>(both.Columns()));
  const double mean = static_cast<double>(sum) / both.Pixels();
  double deviation = 0;
  for (int32_t y = 0; y < both.Rows(); ++y) {
    const uint8_t* row = both.ReferenceRow(y, at.dx, at.dy);
    for (int32_t x = 0; x < both.Columns(); ++x) deviation += std::abs(row[x] - mean);
  }
  return std::max(std::sqrt(2.0) * deviation / both.Pixels(), kMinContrast);
}

}  // namespace

double PictureDiffRatio(const ImageBuffer& reference, const ImageBuffer& picture, const Rect& box) {
  if (!IsRgb(reference) || !IsRgb(picture)) return -1;
  const Rect common = Cut(box, std::min(reference.width, picture.width),
                          std::min(reference.height, picture.height));
  if (Width(common) < kMinSide || Height(common) < kMinSide) return -2;
  // One pixel around, so that the blur has its neighbours.
  const Comparison both{BlurredGrey(reference, Grown(common, kCompareReach + 1, reference)),
                        BlurredGrey(picture, Grown(common, 1, picture)), common};
  const Offset best = BestOffset(both);
  const double difference =
      static_cast<double>(both.Difference(best.dx, best.dy, 1)) / both.Pixels();
  const double ratio = difference / Contrast(both, best);
  VLOG_INFO(kAnalysisTag, "find best sub_img_box to: {} {} {} {} {}", common.left + best.dx,
            common.top + best.dy, common.right + best.dx, common.bottom + best.dy, ratio);
  return ratio;
}

}  // namespace varnel::service

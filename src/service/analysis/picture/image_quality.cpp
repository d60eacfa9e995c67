#include "service/analysis/picture/image_quality.h"

#include <cstddef>
#include <cstdint>

#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/pixel_rows.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;
constexpr uint64_t kDarkest = 30;
constexpr uint64_t kBrightest = 190;
constexpr size_t kChannels = 3;

uint64_t AverageByte(const ImageBuffer& image) {
  const auto width = static_cast<size_t>(image.width);
  uint64_t sum = 0;
  for (size_t y = 0; y < static_cast<size_t>(image.height); ++y)
    sum += RowSum(image.virt_addr + y * RowPitch(image), width * kChannels);
  return sum / (width * static_cast<size_t>(image.height) * kChannels);
}

}  // namespace

PictureQuality image_quality(const ImageBuffer& image) {
  if (image.format != PixelFormat::kRgb888) return PictureQuality::kNotRgb;
  if (image.virt_addr == nullptr) return PictureQuality::kNoPixels;
  if (image.width <= 0 || image.height <= 0) return PictureQuality::kNoSize;
  const uint64_t avg_rgb = AverageByte(image);
  if (avg_rgb < kDarkest) {
    VLOG_WARN(kTag, "image_quality: image is too dark avg_rgb: {}", avg_rgb);
    return PictureQuality::kTooDark;
  }
  if (avg_rgb > kBrightest) {
    VLOG_WARN(kTag, "image_quality: image is too bright avg_rgb: {}", avg_rgb);
    return PictureQuality::kTooBright;
  }
  return PictureQuality::kUsable;
}

}  // namespace varnel::service

#include "service/analysis/picture/conversion.h"

#include <cstring>

#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"
#include "service/analysis/picture/image_scale.h"

namespace varnel::service {
namespace {

/// Bytes of one row from one column up to another; nothing when there are none.
void FillRow(const ImageBuffer& image, int32_t y, int32_t from, int32_t to, uint8_t value) {
  const auto pixel = static_cast<size_t>(BytesPerPixel(image.format));
  uint8_t* const row = image.virt_addr + static_cast<size_t>(y) * RowPitch(image);
  std::memset(row + static_cast<size_t>(from) * pixel, value,
              static_cast<size_t>(to - from) * pixel);
}

}  // namespace

void FillSurroundings(const Conversion& conversion) {
  const ImageBuffer& image = conversion.destination;
  if (!conversion.background || !HasPixels(image) || BytesPerPixel(image.format) == 0) {
    return;
  }
  const uint8_t grey = *conversion.background;
  for (int32_t y = 0; y < image.height; ++y) {
    if (y < conversion.to.top || y >= conversion.to.bottom) {
      FillRow(image, y, 0, image.width, grey);
    } else {
      FillRow(image, y, 0, conversion.to.left, grey);
      FillRow(image, y, conversion.to.right, image.width, grey);
    }
  }
}

int ConvertOnProcessor(const Conversion& conversion) {
  const auto& [source, destination, from, to, background] = conversion;
  if (source.virt_addr == nullptr || destination.virt_addr == nullptr ||
      source.format != destination.format) {
    return -1;
  }
  if (BytesPerPixel(source.format) == 0) {
    PrintMessage("no support format %d\n", static_cast<int>(source.format));
    return -1;
  }
  if (!HasPixels(source) || !HasPixels(destination) || !IsInside(from, source) ||
      !IsInside(to, destination)) {
    return -1;
  }
  FillSurroundings(conversion);
  ScaleBilinear(source, from, destination, to);
  return 0;
}

}  // namespace varnel::service

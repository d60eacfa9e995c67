#include "service/analysis/picture/image_layout.h"

namespace varnel::service {
namespace {

bool IsSide(int32_t side, int32_t stride) {
  return side > 0 && stride >= side && stride <= kMaxImageSide;
}

}  // namespace

size_t BytesNeeded(const ImageBuffer& image) {
  if (!IsSide(image.width, WidthStride(image)) || !IsSide(image.height, HeightStride(image))) {
    return 0;
  }
  const auto rows = static_cast<size_t>(HeightStride(image));
  if (image.format == PixelFormat::kNv12) {
    return static_cast<size_t>(WidthStride(image)) * rows * 3 / 2;
  }
  return RowPitch(image) * rows;
}

bool HasPixels(const ImageBuffer& image) {
  const size_t needed = BytesNeeded(image);
  return image.virt_addr != nullptr && needed > 0 && image.size >= needed;
}

bool AllocateImage(Image& image, int32_t width, int32_t height, PixelFormat format) {
  image.buffer = {.width = width, .height = height, .format = format};
  const size_t bytes = BytesPerPixel(format) > 0 ? BytesNeeded(image.buffer) : 0;
  image.pixels.resize(bytes);
  if (bytes == 0) {
    image.buffer = {};
    return false;
  }
  image.buffer.virt_addr = image.pixels.data();
  image.buffer.size = bytes;
  return true;
}

}  // namespace varnel::service

#pragma once

#include <cstddef>
#include <cstdint>

#include "service/analysis/picture/image_buffer.h"
#include "service/analysis/picture/rect.h"

namespace varnel::service {

/// Sides above this are refused; products of two of them and a pixel's bytes then fit everywhere.
inline constexpr int32_t kMaxImageSide = 1 << 16;

[[nodiscard]] constexpr int32_t WidthStride(const ImageBuffer& image) {
  return image.width_stride > 0 ? image.width_stride : image.width;
}

[[nodiscard]] constexpr int32_t HeightStride(const ImageBuffer& image) {
  return image.height_stride > 0 ? image.height_stride : image.height;
}

/// Bytes from one row to the next; 0 for formats that are not packed.
[[nodiscard]] constexpr size_t RowPitch(const ImageBuffer& image) {
  return static_cast<size_t>(WidthStride(image)) * static_cast<size_t>(BytesPerPixel(image.format));
}

[[nodiscard]] constexpr Rect WholePicture(const ImageBuffer& image) {
  return {0, 0, image.width, image.height};
}

/// Whether the rectangle has pixels and all of them belong to the picture.
[[nodiscard]] constexpr bool IsInside(const Rect& rect, const ImageBuffer& image) {
  return rect.left >= 0 && rect.top >= 0 && rect.left < rect.right && rect.top < rect.bottom &&
         rect.right <= image.width && rect.bottom <= image.height;
}

/// Bytes that the geometry takes; 0 when it makes no picture or the format is not known.
[[nodiscard]] size_t BytesNeeded(const ImageBuffer& image);

/// Whether the picture has all of its pixels in memory.
[[nodiscard]] bool HasPixels(const ImageBuffer& image);

/// Gives `image` a picture of this size without padding; its pixels are undefined.
/// @return false, with an empty image, for a format without whole pixels and for impossible sides
[[nodiscard]] bool AllocateImage(Image& image, int32_t width, int32_t height, PixelFormat format);

}  // namespace varnel::service

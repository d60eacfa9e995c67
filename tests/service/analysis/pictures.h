#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "service/analysis/picture/image_layout.h"

namespace varnel::service {

/// A plain picture; with a stride it has unused pixels behind each row.
inline Image Plain(int32_t width, int32_t height, uint8_t value, int32_t stride = 0,
                   PixelFormat format = PixelFormat::kRgb888) {
  Image image;
  EXPECT_TRUE(AllocateImage(image, std::max(width, stride), height, format));
  std::fill(image.pixels.begin(), image.pixels.end(), value);
  image.buffer.width = width;
  image.buffer.width_stride = std::max(width, stride);
  return image;
}

/// Fills a box with a pattern of its own for each seed.
inline void Scribble(Image& image, const Rect& box, uint32_t seed) {
  for (int32_t y = box.top; y < box.bottom; ++y) {
    for (int32_t x = box.left; x < box.right; ++x) {
      // Patches of 4x4 pixels, which survive blur and JPEG.
      uint32_t value = seed * 2654435761U + static_cast<uint32_t>(y / 4 * 4096 + x / 4) * 40503U;
      value ^= value >> 13U;
      value *= 1274126177U;
      const auto first = (static_cast<size_t>(y) * static_cast<size_t>(image.buffer.width) +
                          static_cast<size_t>(x)) *
                         3;
      for (size_t i = 0; i < 3; ++i) image.pixels[first + i] = static_cast<uint8_t>(value >> 24U);
    }
  }
}

}  // namespace varnel::service

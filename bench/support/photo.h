#pragma once

#include <random>

#include "service/analysis/picture/image_layout.h"
#include "support/turns.h"

namespace varnel::bench {

/// Bright and dark areas, edges and the noise of a camera.
inline service::Image Photo(int32_t width, int32_t height) {
  service::Image image;
  Check(service::AllocateImage(image, width, height, service::PixelFormat::kRgb888), "allocation");
  std::mt19937 random(1);
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const int block = ((x / 97 + y / 61) % 5) * 20;
      uint8_t* const pixel = image.pixels.data() + (ptrdiff_t{1} * y * width + x) * 3;
      for (int c = 0; c < 3; ++c) {
        pixel[c] = static_cast<uint8_t>(40 + block + x * (c + 1) * 20 / width + y * 30 / height +
                                        static_cast<int>(random() % 9));
      }
    }
  }
  return image;
}

}  // namespace varnel::bench

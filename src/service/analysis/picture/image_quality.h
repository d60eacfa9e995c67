#pragma once

#include <cstdint>

#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

/// What speaks against a picture.
enum class [[nodiscard]] PictureQuality : int32_t{
    kUsable = 0, kNotRgb = -1, kNoPixels = -2, kNoSize = -3, kTooDark = -4, kTooBright = -5,
};

/// Whether a picture is worth a look by a network: packed RGB, neither black nor overexposed. The
/// average of all bytes must lie in 30..190.
PictureQuality image_quality(const ImageBuffer& image);

}  // namespace varnel::service

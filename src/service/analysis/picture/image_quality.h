#pragma once

#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

/// Whether a picture is worth a look by a network: packed RGB, neither black nor overexposed. The
/// average of all bytes must lie in 30..190.
/// @return 0; -1 another format, -2 no pixels, -3 no size, -4 too dark, -5 too bright
[[nodiscard]] int image_quality(const ImageBuffer& image);

}  // namespace varnel::service

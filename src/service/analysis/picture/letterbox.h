#pragma once

#include <cstdint>

#include "service/analysis/picture/image_buffer.h"
#include "service/analysis/picture/rga_library.h"

namespace varnel::service {

/// Where a picture lies in the network's input.
struct LetterBox {
  int32_t x_pad = 0;  ///< network pixels left of the picture
  int32_t y_pad = 0;  ///< network pixels above the picture
  /// Network pixels per picture pixel, before the sides were rounded down: at the far edges a
  /// point maps back up to 4 network pixels off in x and 2 in y, when the sides had to be rounded.
  float scale = 1.0F;
};

/// Scales `source` into `destination` keeping its shape, centred, with grey around it. Scaled width
/// is a multiple of 4, scaled height and left and top padding are even.
/// @param background grey value of the padding
/// @param allow_slight_change a source that fits is centred unscaled
/// @return 0, or a negative value with its message on standard output
[[nodiscard]] int convert_image_with_letterbox(const ImageBuffer& source,
                                               const ImageBuffer& destination, LetterBox& letterbox,
                                               uint8_t background, bool allow_slight_change,
                                               const RgaLibrary& engine = BoardRgaLibrary());

}  // namespace varnel::service

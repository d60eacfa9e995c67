#pragma once

#include <cstdint>
#include <optional>

#include "service/analysis/picture/image_layout.h"

namespace varnel::service {

/// What convert_image() is asked for. The rectangles are the whole pictures unless given.
struct Conversion {
  const ImageBuffer& source;
  const ImageBuffer& destination;
  Rect from = WholePicture(source);
  Rect to = WholePicture(destination);
  std::optional<uint8_t> background = {};  ///< grey around `to`; nothing is filled without one
};

/// The processor's way: the background, then the scaled rectangle. A format that it does not know
/// is printed.
/// @return 0 or negative
[[nodiscard]] int ConvertOnProcessor(const Conversion& conversion);

/// Fills what lies around the destination rectangle. Does nothing without pixels in memory, for
/// formats that are not packed and without a background.
void FillSurroundings(const Conversion& conversion);

}  // namespace varnel::service

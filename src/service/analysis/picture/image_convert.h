#pragma once

#include "service/analysis/picture/conversion.h"
#include "service/analysis/picture/rga_library.h"

namespace varnel::service {

/// Copies and scales a rectangle of one picture into a rectangle of another: by the 2D engine when
/// both widths are multiples of 16 and the engine is there, by the processor otherwise.
/// @return 0, or negative with a message on standard output
[[nodiscard]] int convert_image(const Conversion& conversion,
                                const RgaLibrary& engine = BoardRgaLibrary());

/// Copies a box of `source` into a new picture of the box's size.
/// @return 0 or negative (box outside of the picture, empty box)
[[nodiscard]] int crop_image(const ImageBuffer& source, const Rect& box, Image& crop);

}  // namespace varnel::service

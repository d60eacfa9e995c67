#pragma once

#include "service/analysis/picture/image_buffer.h"
#include "service/analysis/picture/rect.h"

namespace varnel::service {

/// Scales a rectangle of one picture into a rectangle of another by bilinear interpolation between
/// pixel centres; nothing outside of the source rectangle is looked at. Both pictures have their
/// pixels in memory, the same packed format, and the rectangles lie inside of them.
void ScaleBilinear(const ImageBuffer& source, const Rect& from, const ImageBuffer& destination,
                   const Rect& to);

}  // namespace varnel::service

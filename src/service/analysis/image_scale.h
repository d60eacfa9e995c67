#pragma once

#include "service/analysis/image_buffer.h"

namespace varnel::service {

/// Scales a rectangle of one picture into a rectangle of another by bilinear interpolation between
/// pixel centres; nothing outside of the source rectangle is looked at. Both pictures have their
/// pixels in memory, the same packed format, and the rectangles lie inside of them.
void ScaleBilinear(const ImageBuffer& source, const ImageRect& from, const ImageBuffer& destination,
                   const ImageRect& to);

}  // namespace varnel::service

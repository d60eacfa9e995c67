#pragma once

#include "service/analysis/picture/image_buffer.h"
#include "service/analysis/picture/rect.h"

namespace varnel::service {

/// How far the camera or the bed may have moved between two pictures, in pixels each way.
inline constexpr int32_t kCompareReach = 16;

/// How much a picture differs from the reference inside a box: 0 identical, about 1 unrelated.
///
///   diff_ratio = D(dx, dy) / C(dx, dy) where D is smallest, |dx|, |dy| <= kCompareReach
///   D = mean of |p(x, y) - r(x + dx, y + dy)| over the box
///   C = max(sqrt(2) * mean of |r - mean r| over the moved box, 6)
///
/// p and r are grey (77 R + 150 G + 29 B) / 256 and lightly blurred (1 2 1, both ways), so that
/// sensor noise and JPEG blocks do not count. The place is where D is smallest, so a bed that
/// stopped a little elsewhere still matches. Dividing by the reference's own contrast makes the
/// figure independent of light and texture: two unrelated pictures of a mean deviation m differ by
/// sqrt(2) * m on average, hence 1. Six grey levels at least: noise on a plain bed is no change,
/// and an object on it is far above 1.
///
/// The search looks at evenly spread rows of large boxes, the figure itself at all pixels. Both
/// pictures are packed RGB; the box is cut to both. Logs the place.
/// @return negative when a picture is no RGB or less than 2x2 pixels of the box are left
[[nodiscard]] double PictureDiffRatio(const ImageBuffer& reference, const ImageBuffer& picture,
                                      const Rect& box);

}  // namespace varnel::service

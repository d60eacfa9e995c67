#pragma once

#include <cstdint>
#include <string_view>

#include "service/analysis/picture/image_buffer.h"
#include "service/analysis/picture/rect.h"

namespace varnel::service {

struct Colour {
  uint8_t red = 0;
  uint8_t green = 0;
  uint8_t blue = 0;
};

/// The colour in which boxes of a class are drawn; any id.
[[nodiscard]] Colour ClassColour(int32_t cls_id);

/// Draws the outline of a box and a caption on its background (ASCII, 8x16 pixels a letter, other
/// bytes as a block) onto a packed three-channel picture; parts outside of it are cut off.
void draw_image_c3(const ImageBuffer& image, const Rect& box, std::string_view caption,
                   Colour colour);

}  // namespace varnel::service

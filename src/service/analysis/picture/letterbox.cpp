#include "service/analysis/picture/letterbox.h"

#include <algorithm>

#include "service/analysis/picture/image_convert.h"
#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"

namespace varnel::service {
namespace {

struct Size {
  int32_t width;
  int32_t height;
};

/// `length` in the proportion of `to` and `from`, rounded down. In whole numbers: a fraction's last
/// bit would take a row from a side that divides exactly.
int32_t Proportional(int32_t length, int32_t to, int32_t from) {
  return static_cast<int32_t>(int64_t{length} * to / from);
}

float ScaleOf(const ImageBuffer& source, const ImageBuffer& destination) {
  return std::min(static_cast<float>(destination.width) / static_cast<float>(source.width),
                  static_cast<float>(destination.height) / static_cast<float>(source.height));
}

Size ScaledSize(const ImageBuffer& source, const ImageBuffer& destination) {
  const bool width_limits =
      int64_t{destination.width} * source.height <= int64_t{destination.height} * source.width;
  const int32_t width = width_limits
                            ? destination.width
                            : Proportional(source.width, destination.height, source.height);
  const int32_t height = width_limits ? Proportional(source.height, destination.width, source.width)
                                      : destination.height;
  return {width - width % 4, height - height % 2};
}

int32_t EvenPadding(int32_t outer, int32_t inner) {
  const int32_t half = (outer - inner) / 2;
  return half - half % 2;
}

bool HasGeometry(const ImageBuffer& source, const ImageBuffer& destination) {
  if (BytesNeeded(source) > 0 && BytesNeeded(destination) > 0) {
    return true;
  }
  PrintMessage("letterbox from %dx%d to %dx%d is not possible\n", source.width, source.height,
               destination.width, destination.height);
  return false;
}

bool HasMemory(const ImageBuffer& image) {
  if (HasPixels(image) || image.fd >= 0) {
    return true;
  }
  PrintMessage("malloc size %d error\n", static_cast<int>(BytesNeeded(image)));
  return false;
}

}  // namespace

int convert_image_with_letterbox(const ImageBuffer& source, const ImageBuffer& destination,
                                 LetterBox& letterbox, uint8_t background, bool allow_slight_change,
                                 const RgaLibrary& engine) {
  if (!HasGeometry(source, destination) || !HasMemory(source) || !HasMemory(destination)) {
    return -1;
  }
  const bool keep_size = allow_slight_change && source.width <= destination.width &&
                         source.height <= destination.height;
  const Size size = keep_size ? Size{source.width, source.height} : ScaledSize(source, destination);
  if (size.width == 0 || size.height == 0) {
    PrintMessage("letterbox from %dx%d to %dx%d has a scaled side of 0\n", source.width,
                 source.height, destination.width, destination.height);
    return -1;
  }
  letterbox = {EvenPadding(destination.width, size.width),
               EvenPadding(destination.height, size.height),
               keep_size ? 1.0F : ScaleOf(source, destination)};
  const Rect place{letterbox.x_pad, letterbox.y_pad, letterbox.x_pad + size.width,
                   letterbox.y_pad + size.height};
  return convert_image(
      {.source = source, .destination = destination, .to = place, .background = background},
      engine);
}

}  // namespace varnel::service

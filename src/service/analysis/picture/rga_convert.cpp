#include "service/analysis/picture/rga_convert.h"

#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"

namespace varnel::service {
namespace {

constexpr int32_t kRowUnit = 16;  ///< pixels; every generation of the engine takes such rows

bool HasEngineRows(const ImageBuffer& image) {
  const bool present = HasPixels(image) || (image.fd >= 0 && BytesNeeded(image) > 0);
  return present && image.width % kRowUnit == 0 && WidthStride(image) % kRowUnit == 0;
}

rga::Buffer Wrap(const RgaFunctions& engine, const ImageBuffer& image) {
  const int wstride = WidthStride(image);
  const int hstride = HeightStride(image);
  const auto format = static_cast<int>(image.format);
  return image.fd >= 0
             ? engine.wrap_fd(image.fd, image.width, image.height, wstride, hstride, format)
             : engine.wrap_virtual_address(image.virt_addr, image.width, image.height, wstride,
                                           hstride, format);
}

rga::Rect EngineRect(const Rect& rect) {
  return {rect.left, rect.top, Width(rect), Height(rect)};
}

void FillByEngine(const RgaFunctions& engine, const rga::Buffer& destination,
                  const Conversion& conversion) {
  // Libraries disagree about the order of the colour's bytes, and a grey has the same in all four.
  const uint32_t grey = *conversion.background * 0x01010101U;
  const rga::Rect everything = EngineRect(WholePicture(conversion.destination));
  if (engine.imfill(destination, everything, static_cast<int>(grey), 1) <= rga::kStatusFailed) {
    PrintMessage("Warning: Can not fill color on target image\n");
    // Some engines scale what they cannot fill; the rest of the job is still theirs.
    FillSurroundings(conversion);
  }
}

}  // namespace

bool SuitsEngine(const Conversion& conversion) {
  return HasEngineRows(conversion.source) && HasEngineRows(conversion.destination) &&
         IsInside(conversion.from, conversion.source) &&
         IsInside(conversion.to, conversion.destination);
}

bool ConvertByEngine(const RgaFunctions& engine, const Conversion& conversion) {
  const rga::Buffer source = Wrap(engine, conversion.source);
  const rga::Buffer destination = Wrap(engine, conversion.destination);
  if (conversion.background) {
    FillByEngine(engine, destination, conversion);
  }
  const rga::Status status = engine.improcess(source, destination, {}, EngineRect(conversion.from),
                                              EngineRect(conversion.to), {}, rga::kUsageSync);
  if (status > rga::kStatusFailed) {
    return true;
  }
  const char* const reason = engine.error_text(status);
  PrintMessage("Error on improcess STATUS=%d\n", status);
  PrintMessage("RGA error message: %s\n", reason == nullptr ? "" : reason);
  return false;
}

}  // namespace varnel::service

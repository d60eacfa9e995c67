#include "service/analysis/image_convert.h"

#include "service/analysis/conversion.h"
#include "service/analysis/image_layout.h"
#include "service/analysis/image_print.h"
#include "service/analysis/rga_convert.h"
#include "service/analysis/rga_library.h"

namespace varnel::service {

int convert_image(const RgaLibrary& engine, const ImageBuffer& source,
                  const ImageBuffer& destination, const std::optional<ImageRect>& source_crop,
                  const std::optional<ImageRect>& destination_crop,
                  std::optional<uint8_t> background) {
  const Conversion conversion{source, destination, source_crop.value_or(WholePicture(source)),
                              destination_crop.value_or(WholePicture(destination)), background};
  if (engine.IsLoaded() && SuitsEngine(conversion) &&
      ConvertByEngine(engine.Functions(), conversion)) {
    return 0;
  }
  PrintMessage("try convert image use cpu\n");
  const int result = ConvertOnProcessor(conversion);
  if (result != 0) {
    PrintMessage("convert_image_cpu fail %d\n", result);
  }
  return result;
}

int convert_image(const ImageBuffer& source, const ImageBuffer& destination,
                  const std::optional<ImageRect>& source_crop,
                  const std::optional<ImageRect>& destination_crop,
                  std::optional<uint8_t> background) {
  return convert_image(BoardRgaLibrary(), source, destination, source_crop, destination_crop,
                       background);
}

int crop_image(const ImageBuffer& source, const DetectionBox& box, Image& crop) {
  const ImageRect rect{box.left, box.top, box.right - 1, box.bottom - 1};
  if (!IsInside(rect, source)) {
    PrintMessage("crop (%d %d) to (%d %d) is outside of a picture of %dx%d\n", box.left, box.top,
                 box.right, box.bottom, source.width, source.height);
    return -1;
  }
  if (!AllocateImage(crop, Width(rect), Height(rect), source.format)) {
    PrintMessage("dst buffer is null\n");
    return -1;
  }
  return convert_image(source, crop.buffer, rect, std::nullopt, std::nullopt);
}

}  // namespace varnel::service

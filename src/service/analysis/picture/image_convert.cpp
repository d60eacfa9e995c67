#include "service/analysis/picture/image_convert.h"

#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"
#include "service/analysis/picture/rga_convert.h"

namespace varnel::service {

int convert_image(const Conversion& conversion, const RgaLibrary& engine) {
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

int crop_image(const ImageBuffer& source, const Rect& box, Image& crop) {
  if (!IsInside(box, source)) {
    PrintMessage("crop (%d %d) to (%d %d) is outside of a picture of %dx%d\n", box.left, box.top,
                 box.right, box.bottom, source.width, source.height);
    return -1;
  }
  if (!AllocateImage(crop, Width(box), Height(box), source.format)) {
    PrintMessage("dst buffer is null\n");
    return -1;
  }
  return convert_image({.source = source, .destination = crop.buffer, .from = box});
}

}  // namespace varnel::service

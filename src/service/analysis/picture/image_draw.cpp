#include "service/analysis/picture/image_draw.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>

#include "service/analysis/picture/image_font.h"
#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"

namespace varnel::service {
namespace {

constexpr int32_t kLineWidth = 3;
constexpr auto kLetterPixelsX = static_cast<int32_t>(kLetterWidth);
constexpr auto kLetterPixelsY = static_cast<int32_t>(kLetterHeight);
/// A caption is no longer than the widest picture.
constexpr size_t kMaxCaption = kMaxImageSide / kLetterWidth;

using Pixel = std::array<uint8_t, 3>;

class Canvas {
 public:
  explicit Canvas(const ImageBuffer& image) : image_(image) {}

  Pixel PixelOf(Colour colour) const {
    return image_.format == PixelFormat::kBgr888 ? Pixel{colour.blue, colour.green, colour.red}
                                                 : Pixel{colour.red, colour.green, colour.blue};
  }
  uint8_t* At(int32_t x, int32_t y) const {
    return image_.virt_addr + static_cast<size_t>(y) * RowPitch(image_) +
           static_cast<size_t>(x) * sizeof(Pixel);
  }
  void Fill(const Rect& area, Colour colour) const {
    const Pixel pixel = PixelOf(colour);
    const Rect inside = Intersection(area, WholePicture(image_));
    for (int32_t y = inside.top; y < inside.bottom; ++y) {
      for (int32_t x = inside.left; x < inside.right; ++x) {
        std::copy(pixel.begin(), pixel.end(), At(x, y));
      }
    }
  }

 private:
  const ImageBuffer& image_;
};

/// The box within reach of the picture, so that sums of its edges cannot overflow.
Rect Reachable(const Rect& box) {
  const auto limited = [](int32_t edge) { return std::clamp(edge, -kMaxImageSide, kMaxImageSide); };
  return {limited(box.left), limited(box.top), limited(box.right), limited(box.bottom)};
}

void DrawOutline(const Canvas& canvas, const Rect& box, Colour colour) {
  const int32_t thick_x = std::min(kLineWidth, Width(box));
  const int32_t thick_y = std::min(kLineWidth, Height(box));
  canvas.Fill({box.left, box.top, box.right, box.top + thick_y}, colour);
  canvas.Fill({box.left, box.bottom - thick_y, box.right, box.bottom}, colour);
  canvas.Fill({box.left, box.top, box.left + thick_x, box.bottom}, colour);
  canvas.Fill({box.right - thick_x, box.top, box.right, box.bottom}, colour);
}

void DrawLetter(const Canvas& canvas, char character, int32_t left, int32_t top, Colour colour) {
  const Letter& letter = LetterShape(character);
  for (int32_t row = 0; row < kLetterPixelsY; ++row) {
    for (int32_t column = 0; column < kLetterPixelsX; ++column) {
      if ((letter[static_cast<size_t>(row)] & (0x80U >> static_cast<uint32_t>(column))) != 0) {
        canvas.Fill({left + column, top + row, left + column + 1, top + row + 1}, colour);
      }
    }
  }
}

/// Black or white, whichever is easier to read on the colour.
Colour InkOn(Colour colour) {
  const int brightness = (299 * colour.red + 587 * colour.green + 114 * colour.blue) / 1000;
  return brightness > 127 ? Colour{0, 0, 0} : Colour{255, 255, 255};
}

/// Above the box, or just inside of it where there is no room.
int32_t CaptionTop(const Rect& box) {
  return box.top >= kLetterPixelsY ? box.top - kLetterPixelsY : box.top;
}

void DrawCaption(const Canvas& canvas, const Rect& box, std::string_view caption, Colour colour) {
  const int32_t top = CaptionTop(box);
  const auto width = static_cast<int32_t>(caption.size()) * kLetterPixelsX;
  canvas.Fill({box.left, top, box.left + width, top + kLetterPixelsY}, colour);
  int32_t left = box.left;
  for (const char character : caption) {
    DrawLetter(canvas, character, left, top, InkOn(colour));
    left += kLetterPixelsX;
  }
}

void PrintDebug(const ImageBuffer& image, const Canvas& canvas, const Rect& box) {
  const Rect inside = Intersection(box, WholePicture(image));
  const bool visible = inside.left < inside.right && inside.top < inside.bottom;
  PrintMessage("draw_image_c3 pixels=%p wxh=%dx%d draw_img=%p pos=(%d %d) rwxrh=%dx%d\n",
               static_cast<void*>(image.virt_addr), image.width, image.height,
               static_cast<void*>(visible ? canvas.At(inside.left, inside.top) : nullptr), box.left,
               box.top, Width(box), Height(box));
}

}  // namespace

Colour ClassColour(int32_t cls_id) {
  static constexpr std::array<Colour, 10> kColours = {{{230, 40, 40},
                                                       {40, 170, 60},
                                                       {50, 90, 230},
                                                       {250, 200, 30},
                                                       {160, 60, 200},
                                                       {30, 190, 200},
                                                       {245, 130, 40},
                                                       {230, 80, 170},
                                                       {130, 100, 60},
                                                       {150, 220, 60}}};
  return kColours[static_cast<uint32_t>(cls_id) % kColours.size()];
}

void draw_image_c3(const ImageBuffer& image, const Rect& box, std::string_view caption,
                   Colour colour) {
  if (!HasPixels(image) || BytesPerPixel(image.format) != sizeof(Pixel)) {
    return;
  }
  const Canvas canvas(image);
  const Rect area = Reachable(box);
  if (spdlog::should_log(spdlog::level::debug)) {
    PrintDebug(image, canvas, area);
  }
  if (area.left < area.right && area.top < area.bottom) {
    DrawOutline(canvas, area, colour);
    DrawCaption(canvas, area, caption.substr(0, kMaxCaption), colour);
  }
}

}  // namespace varnel::service

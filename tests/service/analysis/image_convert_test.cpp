#include "service/analysis/picture/image_convert.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "service/analysis/picture/letterbox.h"
#include "service/analysis/picture/rga_library.h"
#include "service/analysis/pictures.h"

namespace varnel::service {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr uint8_t kGrey = 114;
constexpr uint8_t kUntouched = 77;

const RgaLibrary& NoEngine() {
  static const RgaLibrary kNone{std::span<const std::string>{}};
  return kNone;
}

/// Noise, the hardest picture to interpolate; one memory for views of every size.
ImageBuffer NoiseView(int32_t width, int32_t height, int32_t stride, PixelFormat format) {
  static std::vector<uint8_t> noise = [] {
    std::vector<uint8_t> bytes(size_t{4096} * 3072 * 3);
    std::mt19937 random(7);
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = i < 1'000'000 ? static_cast<uint8_t>(random()) : bytes[i - 999'983];
    }
    return bytes;
  }();
  return {.width = width,
          .height = height,
          .width_stride = stride,
          .format = format,
          .virt_addr = noise.data(),
          .size = noise.size()};
}

/// The value at a destination pixel, by the definition.
double Reference(const ImageBuffer& source, const Rect& from, const Rect& to, int32_t x, int32_t y,
                 size_t channel) {
  const auto place = [](int32_t index, int32_t from_length, int32_t to_length) {
    return std::clamp((index + 0.5) * from_length / to_length - 0.5, 0.0, from_length - 1.0);
  };
  const double px = place(x - to.left, Width(from), Width(to));
  const double py = place(y - to.top, Height(from), Height(to));
  const auto at = [&](double column, double row) {
    const auto sx = static_cast<size_t>(from.left + std::min(column, Width(from) - 1.0));
    const auto sy = static_cast<size_t>(from.top + std::min(row, Height(from) - 1.0));
    const auto bytes = static_cast<size_t>(BytesPerPixel(source.format));
    return static_cast<double>(source.virt_addr[sy * RowPitch(source) + sx * bytes + channel]);
  };
  const double x0 = std::floor(px);
  const double y0 = std::floor(py);
  const double upper = std::lerp(at(x0, y0), at(x0 + 1, y0), px - x0);
  const double lower = std::lerp(at(x0, y0 + 1), at(x0 + 1, y0 + 1), px - x0);
  return std::lerp(upper, lower, py - y0);
}

/// A destination with rows longer than its width, to see what is written beside it.
struct Target {
  Target(int32_t width, int32_t height, int32_t stride, PixelFormat format)
      : image(Plain(width, height, kUntouched, stride, format)) {}
  uint8_t At(int32_t x, int32_t y, size_t channel) const {
    const auto bytes = static_cast<size_t>(BytesPerPixel(image.buffer.format));
    return image.pixels[static_cast<size_t>(y) * RowPitch(image.buffer) +
                        static_cast<size_t>(x) * bytes + channel];
  }
  Image image;
};

bool Covers(const Rect& rect, int32_t x, int32_t y) {
  return x >= rect.left && x < rect.right && y >= rect.top && y < rect.bottom;
}

/// Every pixel of the rows, also beside the picture.
void ExpectScaled(const ImageBuffer& source, const Rect& from, const Target& target, const Rect& to,
                  uint8_t around) {
  const ImageBuffer& image = target.image.buffer;
  const auto channels = static_cast<size_t>(BytesPerPixel(source.format));
  for (int32_t y = 0; y < image.height; ++y) {
    for (int32_t x = 0; x < WidthStride(image); ++x) {
      const bool inside = Covers(to, x, y);
      const double beside = x < image.width ? around : kUntouched;
      for (size_t c = 0; c < channels; ++c) {
        const double wanted = inside ? Reference(source, from, to, x, y, c) : beside;
        ASSERT_NEAR(target.At(x, y, c), wanted, inside ? 2 : 0)
            << x << ',' << y << " of " << Width(from) << 'x' << Height(from) << " to " << Width(to)
            << 'x' << Height(to) << ", " << channels << " channels";
      }
    }
  }
}

TEST(Letterbox, KeepsTheShapeAndGreysWhatIsBesideIt) {
  struct Case {
    int32_t width, height, to_width, to_height;
    Rect place;
  };
  const Case cases[] = {
      {1920, 1080, 640, 640, {0, 140, 640, 500}},  // a third, though that is no binary fraction
      {1900, 1069, 320, 320, {0, 70, 320, 250}},
      {64, 54, 64, 64, {0, 4, 64, 58}},  // paddings are even, here 4 instead of 5
      {50, 100, 64, 64, {16, 0, 48, 64}},
      {107, 201, 64, 64, {16, 0, 48, 64}},  // 34.07 columns, a multiple of 4
      {100, 33, 64, 64, {0, 22, 64, 42}},   // 21.12 rows, an even number
      {99, 100, 33, 18, {8, 0, 24, 18}},
      {5, 3, 63, 64, {0, 14, 60, 50}},
      {4095, 3071, 160, 161, {0, 20, 160, 138}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.width);
    const ImageBuffer source =
        NoiseView(c.width, c.height, c.width + c.width % 7, PixelFormat::kRgb888);
    const Target target(c.to_width, c.to_height, c.to_width + 2, PixelFormat::kRgb888);
    LetterBox box;
    ASSERT_EQ(
        convert_image_with_letterbox(source, target.image.buffer, box, kGrey, false, NoEngine()),
        0);
    EXPECT_EQ(box.x_pad, c.place.left);
    EXPECT_EQ(box.y_pad, c.place.top);
    EXPECT_NEAR(box.scale, std::min(1.0 * c.to_width / c.width, 1.0 * c.to_height / c.height),
                1e-5);
    ExpectScaled(source, WholePicture(source), target, c.place, kGrey);
  }
}

TEST(Letterbox, SlightChangeCentresWhatFits) {
  const ImageBuffer small = NoiseView(101, 51, 0, PixelFormat::kRgb888);
  const Target target(224, 224, 224, PixelFormat::kRgb888);
  LetterBox box;
  ASSERT_EQ(convert_image_with_letterbox(small, target.image.buffer, box, kGrey, true, NoEngine()),
            0);
  EXPECT_EQ(box.scale, 1.0F);
  ExpectScaled(small, WholePicture(small), target, {60, 86, 161, 137}, kGrey);
}

TEST(Letterbox, RefusesMissingMemoryAndWhatLeavesNoPicture) {
  const Target target(64, 64, 64, PixelFormat::kRgb888);
  const ImageBuffer& good = target.image.buffer;
  ImageBuffer nothing = good;
  nothing.virt_addr = nullptr;
  LetterBox box;
  CaptureStdout();
  EXPECT_LT(convert_image_with_letterbox(good, nothing, box, 1, false, NoEngine()), 0);
  EXPECT_LT(convert_image_with_letterbox({}, good, box, 1, false, NoEngine()), 0);
  for (const auto& [width, height] : {std::pair(3000, 10), std::pair(10, 3000)}) {
    const ImageBuffer line = NoiseView(width, height, 0, PixelFormat::kRgb888);
    EXPECT_LT(convert_image_with_letterbox(line, good, box, 1, false, NoEngine()), 0);
  }
  EXPECT_EQ(GetCapturedStdout(),
            "malloc size 12288 error\nletterbox from 0x0 to 64x64 is not possible\n"
            "letterbox from 3000x10 to 64x64 has a scaled side of 0\n"
            "letterbox from 10x3000 to 64x64 has a scaled side of 0\n");
}

TEST(ConvertImage, ScalesCropsOfEveryPackedFormat) {
  const PixelFormat formats[] = {PixelFormat::kRgb888, PixelFormat::kBgr888, PixelFormat::kRgba8888,
                                 PixelFormat::kGrey8};
  const std::pair<int32_t, int32_t> sizes[] = {{1, 1}, {2, 3}, {3, 2}, {7, 90}, {64, 1}, {50, 41}};
  for (const PixelFormat format : formats) {
    const ImageBuffer source = NoiseView(61, 47, 67, format);
    for (const auto& [from_width, from_height] : sizes) {
      const Rect from{61 - std::min(from_width, 61), 47 - std::min(from_height, 47), 61, 47};
      for (const auto& [width, height] : sizes) {
        const Target target(70, 95, 73, format);
        const Rect to{3, 2, 3 + width, 2 + height};
        ASSERT_EQ(convert_image({source, target.image.buffer, from, to, kGrey}, NoEngine()), 0);
        ExpectScaled(source, from, target, to, kGrey);
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST(ConvertImage, RefusesWhatTheProcessorCannotDo) {
  const Target good(32, 32, 32, PixelFormat::kRgb888);
  const ImageBuffer rgb = good.image.buffer;
  const auto changed = [&](auto change) {
    ImageBuffer image = rgb;
    change(image);
    return image;
  };
  const auto refuse = [&](const ImageBuffer& source, const ImageBuffer& destination,
                          const std::string& reason, const Rect& to = {0, 0, 32, 32}) {
    CaptureStdout();
    EXPECT_EQ(convert_image({source, destination, WholePicture(source), to, kGrey}, NoEngine()),
              -1);
    EXPECT_EQ(GetCapturedStdout(),
              "try convert image use cpu\n" + reason + "convert_image_cpu fail -1\n");
  };
  const ImageBuffer nv12 = changed([](ImageBuffer& image) { image.format = PixelFormat::kNv12; });
  refuse(changed([](ImageBuffer& image) { image.virt_addr = nullptr; }), rgb, "");
  refuse(changed([](ImageBuffer& image) { image.format = PixelFormat::kBgr888; }), rgb, "");
  refuse(changed([](ImageBuffer& image) { --image.size; }), rgb, "");
  refuse(changed([](ImageBuffer& image) { image.width = -5; }), rgb, "");
  refuse(changed([](ImageBuffer& image) { image.width_stride = 31; }), rgb, "");
  refuse(nv12, nv12, "no support format 2560\n");
  for (const Rect& rect :
       {Rect{-1, 0, 6, 6}, Rect{0, 0, 33, 6}, Rect{6, 0, 6, 6}, Rect{0, 0, 6, 33}}) {
    refuse(rgb, rgb, "", rect);
  }
  EXPECT_THAT(good.image.pixels, testing::Each(kUntouched));
}

TEST(CropImage, CopiesABoxOrRefusesIt) {
  const ImageBuffer source = NoiseView(61, 47, 67, PixelFormat::kRgb888);
  Image crop;
  ASSERT_EQ(crop_image(source, {50, 40, 61, 47}, crop), 0);
  EXPECT_EQ(crop.buffer.width, 11);
  EXPECT_EQ(crop.buffer.height, 7);
  const uint8_t* const last = source.virt_addr + 46 * RowPitch(source) + size_t{60} * 3;
  EXPECT_TRUE(std::equal(last, last + 3, crop.pixels.end() - 3));
  for (const Rect& box : {Rect{50, 40, 62, 47}, Rect{-1, 0, 5, 5}, Rect{5, 5, 5, 9},
                          Rect{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}}) {
    EXPECT_LT(crop_image(source, box, crop), 0);
  }
  ImageBuffer planar = source;
  planar.format = PixelFormat::kNv12;
  CaptureStdout();
  EXPECT_LT(crop_image(planar, {0, 0, 4, 4}, crop), 0);
  EXPECT_EQ(GetCapturedStdout(), "dst buffer is null\n");
}

}  // namespace
}  // namespace varnel::service

#include "service/analysis/picture/image_convert.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/letterbox.h"
#include "service/analysis/picture/rga_library.h"

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
  Target(int32_t width, int32_t height, int32_t stride, PixelFormat format) {
    EXPECT_TRUE(AllocateImage(image, stride, height, format));
    std::fill(image.pixels.begin(), image.pixels.end(), kUntouched);
    image.buffer.width = width;
    image.buffer.width_stride = stride;
  }
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

void ExpectLetterboxed(const ImageBuffer& source, int32_t width, int32_t height) {
  const Target target(width, height, width + width % 3, source.format);
  const double scale = std::min(static_cast<double>(width) / source.width,
                                static_cast<double>(height) / source.height);
  const auto whole = [&](int32_t side) { return static_cast<int32_t>(side * scale + 1e-9); };
  const int32_t inner_width = whole(source.width) / 4 * 4;
  const int32_t inner_height = whole(source.height) / 2 * 2;
  LetterBox box;
  CaptureStdout();
  const int result =
      convert_image_with_letterbox(source, target.image.buffer, box, kGrey, false, NoEngine());
  const std::string printed = GetCapturedStdout();
  if (inner_width == 0 || inner_height == 0) {
    EXPECT_LT(result, 0);
    EXPECT_THAT(printed, testing::HasSubstr("has a scaled side of 0\n"));
    return;
  }
  ASSERT_EQ(result, 0) << printed;
  EXPECT_NEAR(box.scale, scale, 1e-5);
  EXPECT_EQ(box.x_pad % 2 + box.y_pad % 2, 0);
  for (const auto& [pad, free] :
       {std::pair(box.x_pad, width - inner_width), std::pair(box.y_pad, height - inner_height)}) {
    EXPECT_GE(free - 2 * pad, 0);
    EXPECT_LT(free - 2 * pad, 4);
  }
  const Rect to{box.x_pad, box.y_pad, box.x_pad + inner_width, box.y_pad + inner_height};
  ExpectScaled(source, WholePicture(source), target, to, kGrey);
}

TEST(Letterbox, KeepsShapePaddingAndPixelsForEveryParity) {
  const std::pair<int32_t, int32_t> networks[] = {{64, 64}, {64, 51}, {40, 41}, {33, 18}};
  std::mt19937 random(11);
  for (int i = 0; i < 512; ++i) {
    // Every combination of the lowest bits of width, height and stride, over sizes of every order.
    const auto sized = [&](uint32_t limit) {
      const uint32_t order = 1U << random() % 12;
      return static_cast<int32_t>(random() % std::min(limit, 2 * order)) & ~3;
    };
    const int32_t width = std::max(1, sized(3968) + i % 4);
    const int32_t height = std::max(1, sized(3068) + i / 4 % 4);
    const int32_t stride = width + (i / 16 % 4) * 5;
    const auto& [to_width, to_height] = networks[random() % std::size(networks)];
    ExpectLetterboxed(NoiseView(width, height, stride, PixelFormat::kRgb888), to_width, to_height);
    if (HasFatalFailure()) return;
  }
  ExpectLetterboxed(NoiseView(4096, 3072, 0, PixelFormat::kRgb888), 160, 160);
  ExpectLetterboxed(NoiseView(1900, 1069, 0, PixelFormat::kRgb888), 640, 640);
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

TEST(Letterbox, RefusesMissingMemory) {
  const Target target(64, 64, 64, PixelFormat::kRgb888);
  ImageBuffer nothing = target.image.buffer;
  nothing.virt_addr = nullptr;
  LetterBox box;
  CaptureStdout();
  EXPECT_LT(convert_image_with_letterbox(target.image.buffer, nothing, box, 1, false, NoEngine()),
            0);
  EXPECT_LT(convert_image_with_letterbox({}, target.image.buffer, box, 1, false, NoEngine()), 0);
  EXPECT_EQ(GetCapturedStdout(),
            "malloc size 12288 error\nletterbox from 0x0 to 64x64 is not possible\n");
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

#include "virtual_board/chart/image.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

#include "virtual_board/common/files.h"

namespace varnel::board {

namespace {

struct Yuv {
  double y = 0;
  double u = 0;
  double v = 0;
};

Yuv ToYuv(const uint8_t* p) {
  const double r = p[0];
  const double g = p[1];
  const double b = p[2];
  return {16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255,
          128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255,
          128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255};
}

char Byte(double value) {
  return static_cast<char>(std::lround(value));
}

/// Mean colour of a block that shares its chroma sample.
Yuv BlockMean(const Image& image, uint32_t x, uint32_t y, uint32_t rows) {
  Yuv sum;
  for (uint32_t row = 0; row < rows; ++row) {
    for (uint32_t column = 0; column < 2; ++column) {
      const Yuv pixel = ToYuv(image.Pixel(x + column, y + row));
      sum.u += pixel.u;
      sum.v += pixel.v;
    }
  }
  return {0, sum.u / (2 * rows), sum.v / (2 * rows)};
}

}  // namespace

std::string ToPpm(const Image& image) {
  std::string text =
      "P6\n" + std::to_string(image.width) + " " + std::to_string(image.height) + "\n255\n";
  text.append(image.rgb.begin(), image.rgb.end());
  return text;
}

std::optional<Image> ReadPpm(const std::filesystem::path& path) {
  const std::string data = ReadFile(path);
  std::istringstream in(data);
  std::string magic;
  Image image;
  uint32_t maximum = 0;
  in >> magic >> image.width >> image.height >> maximum;
  const size_t size = size_t{image.width} * image.height * 3;
  if (!in || magic != "P6" || maximum != 255 || data.size() < size) return std::nullopt;
  image.rgb.assign(data.end() - static_cast<std::ptrdiff_t>(size), data.end());
  return image;
}

std::string ToNv12(const Image& image) {
  std::string frame;
  frame.reserve(image.rgb.size() / 2);
  for (size_t i = 0; i < image.rgb.size(); i += 3) frame += Byte(ToYuv(&image.rgb[i]).y);
  for (uint32_t y = 0; y < image.height; y += 2) {
    for (uint32_t x = 0; x < image.width; x += 2) {
      const Yuv chroma = BlockMean(image, x, y, 2);
      frame += Byte(chroma.u);
      frame += Byte(chroma.v);
    }
  }
  return frame;
}

std::string ToYuyv(const Image& image) {
  std::string frame;
  frame.reserve(image.rgb.size() / 3 * 2);
  for (uint32_t y = 0; y < image.height; ++y) {
    for (uint32_t x = 0; x < image.width; x += 2) {
      const Yuv chroma = BlockMean(image, x, y, 1);
      frame += Byte(ToYuv(image.Pixel(x, y)).y);
      frame += Byte(chroma.u);
      frame += Byte(ToYuv(image.Pixel(x + 1, y)).y);
      frame += Byte(chroma.v);
    }
  }
  return frame;
}

std::optional<std::array<double, 3>> MeanError(const Image& a, const Image& b) {
  if (a.width != b.width || a.height != b.height || a.rgb.empty()) return std::nullopt;
  std::array<double, 3> sum{};
  for (size_t i = 0; i < a.rgb.size(); ++i) sum[i % 3] += std::abs(a.rgb[i] - b.rgb[i]);
  const size_t pixels = a.rgb.size() / 3;
  for (double& channel : sum) channel /= static_cast<double>(pixels);
  return sum;
}

}  // namespace varnel::board

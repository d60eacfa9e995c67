#include "virtual_board/chart/chart.h"

#include <algorithm>

namespace varnel::board {

namespace {

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;

struct Colour {
  uint8_t r, g, b;
};

constexpr Colour kPatches[] = {{200, 40, 40},  {40, 170, 60},  {50, 70, 200},   {220, 200, 50},
                               {60, 190, 200}, {180, 70, 180}, {230, 230, 230}, {25, 25, 25}};

/// Seven segments a digit: top, upper left, upper right, middle, lower left, lower right, bottom.
constexpr uint8_t kDigits[] = {0b1110111, 0b0010010, 0b1011101, 0b1011011, 0b0111010,
                               0b1101011, 0b1101111, 0b1010010, 0b1111111, 0b1111011};

class Canvas {
 public:
  Canvas() : image_{kWidth, kHeight, std::vector<uint8_t>(size_t{kWidth} * kHeight * 3)} {}

  template <class ColourAt>
  void Fill(uint32_t left, uint32_t top, uint32_t width, uint32_t height, ColourAt colour_at) {
    for (uint32_t y = top; y < top + height; ++y) {
      uint8_t* pixel = &image_.rgb[(size_t{y} * kWidth + left) * 3];
      for (uint32_t x = left; x < left + width; ++x, pixel += 3) {
        const Colour colour = colour_at(x, y);
        pixel[0] = colour.r;
        pixel[1] = colour.g;
        pixel[2] = colour.b;
      }
    }
  }
  void Plain(uint32_t left, uint32_t top, uint32_t width, uint32_t height, Colour colour) {
    Fill(left, top, width, height, [&](uint32_t, uint32_t) { return colour; });
  }
  Image Take() { return std::move(image_); }

 private:
  Image image_;
};

uint8_t Ramp(uint32_t position, uint32_t length, uint32_t from, uint32_t to) {
  return static_cast<uint8_t>(from + (to - from) * position / length);
}

void DrawBackground(Canvas& canvas) {
  canvas.Fill(0, 0, kWidth, kHeight, [](uint32_t x, uint32_t y) {
    return Colour{Ramp(x, kWidth, 40, 200), Ramp(y, kHeight, 60, 180),
                  Ramp(kWidth - x, kWidth, 70, 190)};
  });
}

void DrawPatches(Canvas& canvas) {
  uint32_t left = 80;
  for (const Colour& colour : kPatches) {
    canvas.Plain(left, 80, 200, 240, colour);
    left += 220;
  }
}

void DrawGreyRamp(Canvas& canvas) {
  canvas.Fill(80, 360, 1760, 120, [](uint32_t x, uint32_t) {
    const uint8_t grey = Ramp(x - 80, 1760, 16, 240);
    return Colour{grey, grey, grey};
  });
}

void DrawDigit(Canvas& canvas, uint32_t left, uint32_t top, uint8_t segments) {
  struct Bar {
    uint32_t x, y, width, height;
  };
  constexpr Bar kBars[] = {{0, 0, 120, 24},   {0, 0, 24, 112},   {96, 0, 24, 112},
                           {0, 100, 120, 24}, {0, 112, 24, 112}, {96, 112, 24, 112},
                           {0, 200, 120, 24}};
  for (uint32_t i = 0; i < 7; ++i) {
    if ((segments & (0b1000000U >> i)) == 0) continue;
    canvas.Plain(left + kBars[i].x, top + kBars[i].y, kBars[i].width, kBars[i].height,
                 {235, 235, 235});
  }
}

void DrawNumber(Canvas& canvas, uint32_t number) {
  canvas.Plain(1080, 560, 760, 320, {20, 24, 40});
  uint32_t left = 1640;
  for (int digit = 0; digit < 4; ++digit, number /= 10, left -= 170) {
    DrawDigit(canvas, left, 608, kDigits[number % 10]);
  }
}

void DrawProgress(Canvas& canvas, uint32_t number) {
  constexpr uint32_t kSteps = 88;
  canvas.Plain(80, 940, 1760, 60, {60, 60, 70});
  canvas.Plain(80 + number % kSteps * 20, 940, 20, 60, {240, 160, 40});
}

}  // namespace

Image DrawChart(uint32_t frame_number) {
  Canvas canvas;
  DrawBackground(canvas);
  DrawPatches(canvas);
  DrawGreyRamp(canvas);
  DrawNumber(canvas, frame_number);
  DrawProgress(canvas, frame_number);
  return canvas.Take();
}

}  // namespace varnel::board

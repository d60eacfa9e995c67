#include "service/analysis/picture/image_draw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <set>

#include "service/analysis/picture/image_font.h"
#include "service/analysis/pictures.h"

namespace varnel::service {
namespace {

constexpr int32_t kWidth = 90;
constexpr int32_t kHeight = 70;
constexpr int32_t kStride = 97;

/// With unused pixels behind each row.
Image Black(PixelFormat format = PixelFormat::kRgb888) {
  return Plain(kWidth, kHeight, 0, kStride, format);
}

std::array<int, 3> At(const Image& image, int32_t x, int32_t y) {
  const uint8_t* const pixel = image.pixels.data() + (int64_t{y} * kStride + x) * 3;
  return {pixel[0], pixel[1], pixel[2]};
}

int Drawn(const Image& image, int32_t from, int32_t to) {
  int count = 0;
  for (int32_t y = 0; y < kHeight; ++y) {
    for (int32_t x = from; x < to; ++x) count += At(image, x, y) != std::array<int, 3>{} ? 1 : 0;
  }
  return count;
}

TEST(DrawImage, OutlinesTheBoxUnderItsCaption) {
  const Image rgb = Black();
  const Image bgr = Black(PixelFormat::kBgr888);
  for (const Image* image : {&rgb, &bgr}) {
    draw_image_c3(image->buffer, {20, 30, 60, 50}, "I", {200, 100, 50});
  }
  const std::array<int, 3> colour{200, 100, 50};
  EXPECT_EQ(At(rgb, 20, 30), colour);
  EXPECT_EQ(At(rgb, 59, 49), colour);
  EXPECT_EQ(At(rgb, 20, 14), colour) << "the caption's background";
  EXPECT_EQ(At(rgb, 60, 49), (std::array<int, 3>{}));
  EXPECT_EQ(At(rgb, 40, 40), (std::array<int, 3>{}));
  EXPECT_EQ(At(rgb, 20, 13), (std::array<int, 3>{}));
  EXPECT_EQ(At(rgb, 23, 14 + 7), (std::array<int, 3>{255, 255, 255})) << "the letter's stem";
  EXPECT_EQ(At(bgr, 20, 30), (std::array<int, 3>{50, 100, 200}));
}

TEST(DrawImage, IsCutOffAtEveryEdge) {
  const Rect boxes[] = {{-10, -10, 30, 30},
                        {70, 50, 120, 90},
                        {-50, 20, 200, 40},
                        {85, 68, 89, 69},
                        {10, 3, 11, 4},
                        {INT_MIN, INT_MIN, INT_MAX, INT_MAX},
                        {INT_MAX - 1, 0, INT_MAX, 10},
                        {40, 40, 30, 30}};
  for (const Rect& box : boxes) {
    const Image image = Black();
    draw_image_c3(image.buffer, box, "label 0.97 \xc3\xa4 with a long text", {255, 255, 255});
    EXPECT_EQ(Drawn(image, kWidth, kStride), 0) << box.left << ',' << box.top;
  }
  const Image inside = Black();
  draw_image_c3(inside.buffer, boxes[4], "X", {255, 255, 255});
  EXPECT_GT(Drawn(inside, 0, kWidth), 80) << "without room above, the caption is inside";
}

TEST(DrawImage, LeavesPicturesAloneThatItCannotDrawOn) {
  Image grey = Black();
  grey.buffer.format = PixelFormat::kGrey8;
  draw_image_c3(grey.buffer, {0, 0, 20, 20}, "x", {255, 255, 255});
  Image small = Black();
  small.buffer.size -= 1;
  draw_image_c3(small.buffer, {0, 0, 20, 20}, "x", {255, 255, 255});
  EXPECT_EQ(Drawn(grey, 0, kStride) + Drawn(small, 0, kStride), 0);
}

TEST(Font, EveryLetterHasAShapeOfItsOwnWithAGapBehind) {
  std::set<Letter> shapes;
  for (char c = ' '; c <= '~'; ++c) {
    shapes.insert(LetterShape(c));
    for (const uint8_t row : LetterShape(c)) EXPECT_EQ(row & 1U, 0U) << c;
  }
  EXPECT_EQ(shapes.size(), 95U);
  EXPECT_EQ(shapes.count(LetterShape('\xe4')), 0U);
  EXPECT_EQ(LetterShape('\xe4'), LetterShape('\n'));
}

}  // namespace
}  // namespace varnel::service

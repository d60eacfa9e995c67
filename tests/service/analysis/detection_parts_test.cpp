#include <gmock/gmock.h>

#include "service/analysis/decision/annotation.h"
#include "service/analysis/decision/bed_item_algorithm.h"
#include "service/analysis/decision/detection_statistics.h"
#include "service/analysis/decision/picture_directory.h"
#include "service/analysis/picture/image_quality.h"
#include "service/analysis/picture/picture_compare.h"
#include "service/analysis/printer_analysis_fixture.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using testing::DoubleNear;

TEST(ImageQualityTest, TheAverageByteDecides) {
  using enum PictureQuality;
  const std::pair<uint8_t, PictureQuality> cases[] = {
      {29, kTooDark}, {30, kUsable}, {190, kUsable}, {191, kTooBright}};
  for (const auto& [grey, expected] : cases)
    EXPECT_EQ(image_quality(Plain(33, 21, grey).buffer), expected) << int{grey};
  Image almost = Plain(10, 10, 30);
  almost.pixels[7] = 29;  // 29.997 is cut to 29
  EXPECT_EQ(image_quality(almost.buffer), kTooDark);
  Image picture = Plain(10, 10, 100);
  picture.buffer.format = PixelFormat::kBgr888;
  EXPECT_EQ(image_quality(picture.buffer), kNotRgb);
  picture.buffer.format = PixelFormat::kRgb888;
  picture.buffer.height = 0;
  EXPECT_EQ(image_quality(picture.buffer), kNoSize);
  picture.buffer.virt_addr = nullptr;
  EXPECT_EQ(image_quality(picture.buffer), kNoPixels);
}

Detection Result(const Rect& box, float prop, int32_t cls = 0, uint32_t flag = 0) {
  return {box, prop, cls, flag};
}

DetectionList ListOf(const std::vector<Detection>& results) {
  DetectionList list;
  for (const Detection& result : results) list.results[static_cast<size_t>(list.count++)] = result;
  return list;
}

TEST(DetectionStatisticsTest, FiguresAreThoseOfTheFormulas) {
  DetectionHistory history(2);
  history.Add(
      ListOf({Result({0, 0, 100, 50}, 0.9F), Result({0, 0, 9, 9}, 0.99F, 0, kDetectionIgnored),
              Result({0, 0, 9, 9}, 0.99F, 2), Result({0, 0, 9, 9}, 0.99F, -1)}));
  EXPECT_EQ(
      ClassStatistics(history.Totals()[0], 1000, 100),
      json::parse(R"({"obj_cnts":1,"obj_areas":0.0499,"obj_probs":0.9,"obj_weighted_probs":0.9})"))
      << "5000 / 100000.1";
  history.Add(ListOf({}));
  history.Add(ListOf({Result({100, 100, 200, 250}, 0.5F)}));
  const ClassTotals& totals = history.Totals()[0];
  EXPECT_EQ(history.Size(), 3U);
  EXPECT_DOUBLE_EQ(totals.centre_x, 0.75 * 150 + 0.25 * 50);
  EXPECT_DOUBLE_EQ(totals.centre_y, 0.75 * 175 + 0.25 * 25);
  EXPECT_EQ(
      ClassStatistics(totals, 100, 100),
      json::parse(R"({"obj_cnts":2,"obj_areas":1.0,"obj_probs":0.9,"obj_weighted_probs":0.6})"));
  EXPECT_EQ(history.Totals()[1].count, 0) << "flagged results and unknown classes count nowhere";
  history.Clear();
  EXPECT_EQ(history.Size() + static_cast<size_t>(history.Totals()[0].count), 0U);
  history.Add(ListOf({Result({5, 5, 5, 9}, 0.7F), Result({0, 0, 10, 10}, 0.8F)}));
  EXPECT_NEAR(history.Totals()[0].weighted_prob, 0.8, 1e-6) << "without area it has no weight";
  history.Add(ListOf({Result({0, 0, 9, 9}, 1e30F)}));
  EXPECT_EQ(ClassStatistics(history.Totals()[0], 9, 9)["obj_probs"], 100000);
}

TEST(BedItemFlagTest, LabelSizeAndPlaceDecide) {
  const struct {
    const char* label;
    Rect box;
    uint32_t flag;
  } cases[] = {
      {"nozzle", {500, 500, 900, 900}, 0x10}, {"legend_text", {500, 500, 510, 510}, 0x10},
      {"item", {500, 500, 600, 600}, 0},      {"item", {500, 500, 524, 524}, 1},  // both below 25
      {"item", {500, 500, 525, 524}, 0},  // one of them is not
      {"item", {500, 500, 504, 656}, 1},  // 4 wide, 624
      {"item", {500, 500, 504, 657}, 0},  // 4 wide, 628
      {"item", {500, 500, 505, 525}, 0},  // 5 wide
      {"item", {500, 500, 656, 504}, 1},  // 4 high, 624
      {"item", {500, 500, 657, 504}, 0},  // 4 high, 628
      {"item", {500, 500, 525, 505}, 0},  // 5 high
      {"item", {400, 35, 500, 135}, 2},   // 135 / 1080 = 0.125
      {"item", {401, 35, 501, 135}, 0},       {"item", {400, 36, 500, 136}, 0},
      {"item", {10, 10, 20, 20}, 1},  // a speck is a speck, wherever it is
  };
  for (const auto& test : cases) {
    EXPECT_EQ(BedItemFlag(test.label, test.box, 1080), test.flag)
        << test.label << " " << test.box.left << " " << test.box.right << " " << test.box.bottom;
  }
}

TEST(ResultCaptionTest, SaysWhyAResultDoesNotCount) {
  EXPECT_EQ(ResultCaption("noodle", Result({}, 0.8765F), false), "noodle 87.7%");
  EXPECT_EQ(ResultCaption("noodle", Result({}, 1, 0, kDetectionIgnored), true),
            "noodle 100.0% (*)");
  EXPECT_EQ(ResultCaption("noodle", Result({}, 0.5F, 0, kDetectionIgnored), false),
            "noodle 50.0% (ignored)");
}

TEST(PictureDiffRatioTest, ZeroForTheSameAndOneForAnother) {
  const test::LogCapture log;
  const Rect box{100, 100, 220, 200};
  const Rect around{60, 60, 260, 240};
  Image reference = Plain(400, 300, 120);
  Scribble(reference, around, 1);
  Image same = Plain(400, 300, 120);
  Scribble(same, around, 1);
  EXPECT_EQ(PictureDiffRatio(reference.buffer, same.buffer, box), 0.0);

  // Everything moved by 12 to the right and 8 up.
  Image moved = Plain(400, 300, 120);
  for (size_t y = 0; y < 290; ++y) {
    std::copy_n(reference.pixels.begin() + static_cast<long>((y + 8) * 1200), 1200 - 36,
                moved.pixels.begin() + static_cast<long>(y * 1200 + 36));
  }
  EXPECT_EQ(PictureDiffRatio(reference.buffer, moved.buffer, box), 0.0);
  EXPECT_TRUE(log.Has("ANALYSIS", "find best sub_img_box to: 88 108 208 208 0"));

  Image another = Plain(400, 300, 120);
  Scribble(another, around, 2);
  EXPECT_THAT(PictureDiffRatio(reference.buffer, another.buffer, box), DoubleNear(0.95, 0.1));
  const Image empty = Plain(400, 300, 120);
  EXPECT_GT(PictureDiffRatio(empty.buffer, reference.buffer, box), 5) << "an object where none was";
  EXPECT_LT(PictureDiffRatio(empty.buffer, Plain(400, 300, 121).buffer, box), 0.2) << "noise";
}

TEST(PictureDiffRatioTest, BoxesBeyondThePicturesAreCutAndNothingLeftIsAnError) {
  const Image large = Plain(400, 300, 120);
  const Image small = Plain(200, 100, 120);
  EXPECT_EQ(PictureDiffRatio(small.buffer, large.buffer, {150, 50, 400, 300}), 0.0);
  EXPECT_EQ(PictureDiffRatio(large.buffer, large.buffer, {-50, -50, 4000, 3000}), 0.0);
  EXPECT_LT(PictureDiffRatio(small.buffer, large.buffer, {199, 50, 400, 300}), 0);
  EXPECT_LT(PictureDiffRatio(large.buffer, large.buffer, {50, 50, 50, 90}), 0);
  EXPECT_LT(PictureDiffRatio(ImageBuffer{}, large.buffer, {50, 50, 90, 90}), 0);
}

class PictureDirectoryTest : public testing::Test {
 protected:
  std::string Add(uint64_t number, size_t limit = 3) {
    return directory_.Add(PictureName(number) + ".org.jpg", limit, [](const std::string& path) {
      return static_cast<bool>(std::ofstream(path) << "picture");
    });
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(dir_ / name); }

  test::LogCapture log_;
  test::TempDir dir_;
  PictureDirectory directory_{dir_ / "org"};
};

TEST_F(PictureDirectoryTest, TheOldestGoesAndForeignFilesStay) {
  dir_.Write("org/notes.txt", "");
  dir_.Write("org/printer_detect7.txt", "");
  dir_.Write("org/printer_detect.jpg", "");
  dir_.Write("org/printer_detect99999999999999999999.jpg", "");
  dir_.Write("org/.varnel-abcdef.jpg", "left by a power failure");
  std::filesystem::create_directory(dir_ / "org/printer_detect1.jpg");
  for (const int number : {9, 10, 100})
    dir_.Write("org/printer_detect" + std::to_string(number) + ".org.jpg", "");
  EXPECT_EQ(directory_.Count(), 3U);
  EXPECT_EQ(directory_.HighestNumber(), 100U);
  EXPECT_EQ(Add(101), dir_ / "org/printer_detect101.org.jpg");
  EXPECT_FALSE(Exists("org/printer_detect9.org.jpg")) << "9 is older than 10";
  EXPECT_TRUE(Exists("org/printer_detect10.org.jpg"));
  EXPECT_NE(Add(102, 1), "") << "a lower limit takes several";
  EXPECT_EQ(directory_.Count(), 1U);
  EXPECT_TRUE(Exists("org/notes.txt") && Exists("org/printer_detect.jpg") &&
              Exists("org/printer_detect7.txt") && Exists("org/printer_detect1.jpg") &&
              Exists("org/printer_detect99999999999999999999.jpg"));
  EXPECT_FALSE(Exists("org/.varnel-abcdef.jpg"));
  EXPECT_TRUE(log_.Has("ANALYSIS", "save " + (dir_ / "org/printer_detect102.org.jpg").string()));
}

TEST_F(PictureDirectoryTest, WhatOthersDoToItIsNoticed) {
  EXPECT_NE(Add(1), "");
  EXPECT_NE(Add(2), "");
  std::filesystem::remove_all(dir_ / "org");
  EXPECT_NE(Add(3), "") << "made again";
  EXPECT_EQ(directory_.Count(), 1U);
  std::filesystem::remove_all(dir_ / "org");
  dir_.Write("org", "a file in its place");
  EXPECT_EQ(Add(4), "");
  EXPECT_EQ(directory_.Count(), 0U);
  std::filesystem::remove(dir_ / "org");
  EXPECT_NE(Add(5), "");
  const auto fails = [](const std::string&) { return false; };
  EXPECT_EQ(directory_.Add("printer_detect6.jpg", 3, fails), "");
  EXPECT_TRUE(
      log_.Has("ANALYSIS", "save " + (dir_ / "org/printer_detect6.jpg").string() + " failed"));
  EXPECT_EQ(directory_.HighestNumber(), 5U);
  EXPECT_EQ(PictureDirectory().Add("x", 3, {}), "");
  EXPECT_TRUE(log_.Has("ANALYSIS", "saving image path is empty"));
}

}  // namespace
}  // namespace varnel::service

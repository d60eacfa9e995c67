#include "service/analysis/decision/result_pictures.h"

#include "service/analysis/printer_analysis_fixture.h"

namespace varnel::service {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(PrinterAnalysisTest, PicturesAreKeptForPeople) {
  Boot();
  const std::string source = Save(Plain(640, 640, 128));
  DetectNoodles("first");
  EXPECT_EQ(test::ReadFile(dir_ / "results/org/printer_detect1.org.jpg"), test::ReadFile(source));
  EXPECT_EQ(test::ReadFile(dir_ / "results/det/printer_detect1.det.jpg"), test::ReadFile(source));
  EXPECT_THAT(Files("positive/org"), IsEmpty());
  NoodlesAre({{}});
  DetectNoodles("first");
  EXPECT_THAT(Files("crop"), ElementsAre("printer_detect2.first.jpg"));
  EXPECT_THAT(Files("positive/org"), ElementsAre("printer_detect2.org.jpg"));
  EXPECT_THAT(Files("positive/det"), ElementsAre("printer_detect2.det.jpg"));
  const std::string annotated = test::ReadFile(dir_ / "results/det/printer_detect2.det.jpg");
  EXPECT_EQ(test::ReadFile(dir_ / "results/positive/det/printer_detect2.det.jpg"), annotated);
  EXPECT_NE(annotated, test::ReadFile(source));
  VerifierSays(0);
  DetectNoodles("");
  EXPECT_THAT(Files("crop"), SizeIs(2));
  EXPECT_THAT(Files("positive/org"), SizeIs(1)) << "a rejected find is none";
  Boot();
  const std::string broken = "no picture" + std::string(ResultPictures::kMaxUnreadable, '.');
  EXPECT_EQ(Code(dir_.Write("broken.jpg", broken), kNoodle), -5);
  EXPECT_EQ(test::ReadFile(dir_ / "results/org/printer_detect4.org.jpg"),
            broken.substr(0, ResultPictures::kMaxUnreadable));
  EXPECT_EQ(Code(dir_ / "missing.jpg", kNoodle), -5);
  DetectNoodles("");
  EXPECT_THAT(Files("org"), SizeIs(5)) << "numbers go on, and nothing was kept of a missing one";
  EXPECT_THAT(Files("org"), testing::Contains("printer_detect5.org.jpg"));
}

TEST_F(PrinterAnalysisTest, PictureLimitsHold) {
  std::string config(kBuiltInModelConfig);
  for (size_t at = 0; (at = config.find("\"max_detect_pic_cnt\": 100", at)) != std::string::npos;)
    config.replace(at, 25, "\"max_detect_pic_cnt\": 2");
  Boot(config);
  NoodlesAre({{}});
  for (int i = 0; i < 4; ++i) DetectNoodles("");
  for (const char* directory : {"org", "det", "positive/org", "positive/det"})
    EXPECT_THAT(Files(directory), SizeIs(2)) << directory;
  EXPECT_THAT(Files("crop"), ElementsAre("printer_detect1.jpg", "printer_detect2.jpg"))
      << "crops stop instead";
  EXPECT_THAT(Files("org"), ElementsAre("printer_detect3.org.jpg", "printer_detect4.org.jpg"));
}

}  // namespace
}  // namespace varnel::service

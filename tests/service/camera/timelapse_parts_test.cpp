// The small parts of a time-lapse: lists, progress, settings, requests.
#include <gtest/gtest.h>

#include "service/camera/timelapse/disk/base64_file.h"
#include "service/camera/timelapse/disk/segment_list.h"
#include "service/camera/timelapse/disk/timelapse_settings.h"
#include "service/camera/timelapse/encoder/film_programs.h"
#include "service/camera/timelapse/encoder/generation_progress.h"
#include "service/camera/timelapse_requests.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class TimelapsePartsTest : public testing::Test {
 protected:
  test::LogCapture log_;
  test::TempDir dir_;
};

TEST_F(TimelapsePartsTest, ASegmentListSurvivesALineThatWasCutShort) {
  const fs::path list = dir_ / "filelist.txt";
  EXPECT_TRUE(ReadSegmentList(list)->empty());
  EXPECT_FALSE(AppendSegment(list, "/w/seg_00001.ts"));
  const std::string whole = test::ReadFile(list);
  EXPECT_EQ(whole, "file '/w/seg_00001.ts'\n");
  for (const char* torn : {"f", "file '/w/seg_0", "file '/w/seg_00002.ts'"}) {
    dir_.Write("filelist.txt", whole + torn);
    EXPECT_FALSE(AppendSegment(list, "/w/seg_00003.ts"));
    EXPECT_EQ(test::ReadFile(list), whole + "file '/w/seg_00003.ts'\n") << torn;
  }
  dir_.Write("filelist.txt", "file ''\nfile '/a\n/b'\nfile '/c'\n");
  std::vector<std::string> skipped;
  EXPECT_EQ(ReadSegmentList(list, [&](const std::string& line) { skipped.push_back(line); }),
            (std::vector<fs::path>{"/c"}));
  EXPECT_EQ(skipped, (std::vector<std::string>{"file ''", "file '/a", "/b'"}));
}

TEST_F(TimelapsePartsTest, ProgressIsReadFromTheLastTwelveLines) {
  const std::string block(11, '\n');
  const std::pair<std::string, int> cases[] = {
      {"", -1},
      {"frame=7\nprogress=end\n", 7},
      {"frame=7\nframe=9\n", 9},
      {"frame=7" + block + "x\n", 7},
      {"frame=7\n" + block + "x\n", -1},
      {"frame=abc\n", -1},
      {"frame=\n", -1},
      {"frame= 12\n", 12},
      {"frame=99999999999\n", -1},
      {"frame=5", 5},
  };
  for (const auto& [text, frame] : cases) EXPECT_EQ(LastProgressFrame(text), frame) << text;
  EXPECT_EQ(ProgressPercent(5, 0), 0);
  EXPECT_EQ(ProgressPercent(-1, 10), 0);
  EXPECT_EQ(ProgressPercent(1, 3), 26);
  EXPECT_EQ(ProgressPercent(3, 3), 80);
  EXPECT_EQ(ProgressPercent(1'000'000, 3), 80);
}

TEST_F(TimelapsePartsTest, OnlyTheEncodersOwnLinesAreComplaints) {
  const std::string video = "/w/.varnel-x/film.mp4";
  for (const char* own : {"[h264 @ 0x1] error while decoding", "[mov,mp4 @ 0x2] x",
                          "/w/.varnel-x/film.mp4: Invalid data found"})
    EXPECT_TRUE(IsComplaint(own, video)) << own;
  for (const char* other : {"", "rga_api version 1.9", "mpp[123]: mpp_info: version", "[]"})
    EXPECT_FALSE(IsComplaint(other, video)) << other;
  EXPECT_EQ(LastLine("ffmpeg version 5\nframe=1\rframe=2\r\n Conversion failed! \n\n"),
            "Conversion failed!");
  EXPECT_EQ(LastLine(" \n"), "");
}

TEST_F(TimelapsePartsTest, SettingsThatAreUnusableBecomeTheDefaults) {
  const fs::path file = dir_ / "config.json";
  const TimelapseSettings odd = {"a-Z_9", std::string(300, 'n') + "\n'\"😀", "../..", 240};
  EXPECT_FALSE(SaveTimelapseSettings(odd, file));
  const TimelapseSettings read = LoadTimelapseSettings(file).value();
  EXPECT_EQ(read.gcode_name, odd.gcode_name);
  EXPECT_EQ(read.frame_rate, 240U);
  for (const char* illegal : {"{", "[]", R"({"mode":"../x"})", R"({"frame_rate":0})",
                              R"({"frame_rate":"30"})", R"({"gcode_name":7})", R"({"mode":""})"}) {
    dir_.Write("config.json", illegal);
    EXPECT_EQ(LoadTimelapseSettings(file)->mode, "classic") << illegal;
  }
  dir_.Write("config.json", "{}");
  EXPECT_EQ(LoadTimelapseSettings(file)->frame_rate, 30U);
  EXPECT_EQ(log_.Count("TLP", "The content of the config file is illegal, use default."), 7U);
}

TEST_F(TimelapsePartsTest, RequestsAreJudgedByTypeAndValue) {
  for (const char* good : {R"({"mode":"classic","frame_rate":1})",
                           R"({"mode":"x","frame_rate":240,"gcode_name":"","gcode_path":"p"})"}) {
    EXPECT_TRUE(ParseTimelapseStart(json::parse(good))) << good;
  }
  for (const char* bad :
       {R"({"mode":"","frame_rate":30})", R"({"mode":"a/b","frame_rate":30})",
        R"({"mode":7,"frame_rate":30})", R"({"mode":"x","frame_rate":0})",
        R"({"mode":"x","frame_rate":241})", R"({"mode":"x","frame_rate":24.5})",
        R"({"mode":"x","frame_rate":"24"})", R"({"mode":"x","frame_rate":-9223372036854775808})",
        R"({"mode":"x","frame_rate":18446744073709551615})",
        R"({"mode":"x","frame_rate":30,"gcode_name":null})"}) {
    EXPECT_FALSE(ParseTimelapseStart(json::parse(bad))) << bad;
  }
  EXPECT_TRUE(ParseTimelapseQuery(nullptr)->all);
  EXPECT_TRUE(ParseTimelapseQuery(json::object())->all);
  const auto query = ParseTimelapseQuery({{"thumbnail_direct", true}, {"page_index", 2.0}});
  ASSERT_TRUE(query);
  EXPECT_EQ(query->page_index, 2U);
  EXPECT_EQ(query->page_rows, 10U);
  EXPECT_TRUE(query->thumbnail_inline && !query->all);
  for (const char* bad :
       {"[]", "7", R"({"page_index":0})", R"({"page_rows":-1})", R"({"page_rows":1.5})",
        R"({"page_rows":1e300})", R"({"page_index":"1"})", R"({"thumbnail_direct":1})"}) {
    EXPECT_FALSE(ParseTimelapseQuery(json::parse(bad))) << bad;
  }
}

TEST_F(TimelapsePartsTest, APictureBecomesOneLineOfBase64) {
  const fs::path target = dir_ / "out.txt";
  const std::pair<std::string, const char*> cases[] = {
      {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {std::string("\0\xff", 2), "AP8="}};
  for (const auto& [bytes, text] : cases) {
    EXPECT_TRUE(WriteBase64(dir_.Write("in", bytes), target));
    EXPECT_EQ(test::ReadFile(target), text);
  }
  EXPECT_FALSE(WriteBase64(dir_ / "none", target));
  EXPECT_FALSE(WriteBase64(dir_.Path(), target));
  EXPECT_FALSE(WriteBase64(dir_.Write("empty", ""), target));
  EXPECT_FALSE(WriteBase64(dir_ / "in", dir_ / "no/such/out.txt"));
  EXPECT_EQ(test::ReadFile(target), "AP8=") << "the old one stays";
}

}  // namespace
}  // namespace varnel::service

// What people give to a replay: the command line, a folder, labels.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <sstream>

#include "replay/command_line.h"
#include "replay/labels.h"
#include "replay/picture_folder.h"
#include "support/temp_dir.h"

namespace varnel::replay {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

TEST(ReplayCommandLineTest, OptionsStandAnywhereAndThresholdsAddUp) {
  const std::vector<const char*> arguments = {
      "--threshold", "item=0.5",      "pictures", "--algorithm", "beditem",
      "--threshold", "nozzle=1",      "--models", "m",           "--out",
      "o",           "--labels-file", "l"};
  const CommandLine line = ParseCommandLine(arguments);
  EXPECT_EQ(line.error, "");
  EXPECT_EQ(line.options.folder, "pictures");
  EXPECT_EQ(line.options.algorithm->name, "beditem");
  EXPECT_THAT(line.options.thresholds, ElementsAre(Pair("item", 0.5), Pair("nozzle", 1.0)));
  EXPECT_EQ(line.options.models / line.options.out / line.options.labels, "m/o/l");
  const std::vector<const char*> dashed = {"--", "-pictures"};
  EXPECT_EQ(ParseCommandLine(dashed).options.folder, "-pictures");
}

TEST(ReplayCommandLineTest, SaysWhatIsWrong) {
  const std::pair<std::vector<const char*>, const char*> cases[] = {
      {{}, "which folder?"},
      {{"a", "b"}, "not also \"b\""},
      {{"--speed", "a"}, "there is no option --speed"},
      {{"a", "--out"}, "--out needs a value"},
      {{"a", "--out", ""}, "--out needs a path"},
      {{"a", "--algorithm", "x"}, "knows noodle and beditem"},
      {{"a", "--threshold", "noodle"}, "needs LABEL=VALUE"},
      {{"a", "--threshold", "noodle="}, "0 to 1"},
      {{"a", "--threshold", "noodle=1.1"}, "0 to 1"},
      {{"a", "--threshold", "noodle=nan"}, "0 to 1"},
      {{"a", "--threshold", "noodle=0.5x"}, "0 to 1"},
      {{"a", "--threshold", "item=0.5"}, "noodle has no label item"},
  };
  for (const auto& [arguments, error] : cases)
    EXPECT_THAT(ParseCommandLine(arguments).error, HasSubstr(error));
}

TEST(ReplayFolderTest, ListsJpegFilesByName) {
  const test::TempDir folder;
  for (const char* name : {"b.jpg", "a.jpeg", "C.JPG", "d.png", "jpg", "below.jpg/e.jpg"})
    folder.Write(name, "");
  std::error_code error;
  EXPECT_THAT(ListPictures(folder.Path(), error), ElementsAre("C.JPG", "a.jpeg", "b.jpg"));
  EXPECT_FALSE(error);
  EXPECT_THAT(ListPictures(folder / "nothing", error), IsEmpty());
  EXPECT_TRUE(error);
}

TEST(ReplayLabelsTest, ReadsLinesAndSkipsWhatItNeedsNot) {
  std::istringstream lines(
      "{\"picture\": \"b.jpg\", \"label\": \"item\", \"box\": [1, 2, 3.5, 4], \"by\": \"me\"}\r\n"
      "\n \t\r\n"
      "{\"picture\": \"a.jpg\", \"label\": \"noodle\", \"box\": [-1, 0, 1, 1]}\n"
      "{\"picture\": \"b.jpg\", \"label\": \"nozzle\", \"box\": [0, 0, 1, 1]}");
  std::string error;
  const auto labels = ReadLabels(lines, error);
  ASSERT_TRUE(labels) << error;
  ASSERT_EQ(labels->size(), 2U);
  EXPECT_EQ(labels->at("a.jpg").at(0).box.left, -1);
  ASSERT_EQ(labels->at("b.jpg").size(), 2U);
  EXPECT_EQ(labels->at("b.jpg").at(0).label, "item");
  EXPECT_EQ(labels->at("b.jpg").at(0).box.right, 3.5);
}

TEST(ReplayLabelsTest, NamesTheFirstBadLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "no JSON object"},
      {"{\"picture\": \"a\"", "no JSON object"},
      {R"({"label": "item", "box": [0, 0, 1, 1]})", "\"picture\""},
      {R"({"picture": "", "label": "item", "box": [0, 0, 1, 1]})", "\"picture\""},
      {R"({"picture": "a", "label": 1, "box": [0, 0, 1, 1]})", "\"label\""},
      {R"({"picture": "a", "label": "item"})", "\"box\""},
      {R"({"picture": "a", "label": "item", "box": [0, 0, 1]})", "\"box\""},
      {R"({"picture": "a", "label": "item", "box": [0, 0, "1", 1]})", "\"box\""},
      {R"({"picture": "a", "label": "item", "box": [1, 0, 1, 1]})", "left < right"},
      {R"({"picture": "a", "label": "item", "box": [0, 0, 1, 1e999]})", "no JSON object"},
  };
  for (const auto& [line, problem] : cases) {
    std::istringstream lines(fmt::format("\n{}\n{{}}\n", line));
    std::string error;
    EXPECT_FALSE(ReadLabels(lines, error));
    EXPECT_THAT(error, HasSubstr("line 2: "));
    EXPECT_THAT(error, HasSubstr(problem));
  }
}

}  // namespace
}  // namespace varnel::replay

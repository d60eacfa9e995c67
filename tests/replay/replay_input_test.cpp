// What people give to a replay: the command line, a folder, labels.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <sstream>

#include "replay/command_line.h"
#include "replay/picture_set.h"
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
  const std::vector<const char*> cut = {"--shard", "2/3", "--prints", "--independent", "p"};
  const CommandLine shard = ParseCommandLine(cut);
  EXPECT_EQ(shard.error, "");
  EXPECT_EQ(shard.options.shard.index * 10 + shard.options.shard.count, 23U);
  const std::vector<const char*> merge = {"a", "--merge", "--out", "o", "b"};
  EXPECT_THAT(ParseCommandLine(merge).options.shards, ElementsAre("a", "b"));
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
      {{"a", "--shard", "1/2"}, "needs --prints or --independent"},
      {{"a", "--shard", "3/2", "--prints"}, "i from 1 to n"},
      {{"a", "--shard", "0/2", "--prints"}, "i from 1 to n"},
      {{"a", "--shard", "1/2x", "--prints"}, "i from 1 to n"},
      {{"a", "--shard", "2", "--prints"}, "needs i/n"},
      {{"a", "--merge", "--models", "m"}, "--merge takes no --models"},
  };
  for (const auto& [arguments, error] : cases)
    EXPECT_THAT(ParseCommandLine(arguments).error, HasSubstr(error));
}

TEST(ReplayFolderTest, ListsJpegFilesByNameAndSaysWhatItSkips) {
  const test::TempDir folder;
  for (const char* name : {"b.jpg", "a.jpeg", "C.JPG", "e.Jpeg", "d.png", "jpg", "p.jpg/e.jpg",
                           "p.jpg/below/f.jpg", "p.jpg-2/g.jpg"})
    folder.Write(name, "x");
  const auto texts = [](const PictureList& list) {
    std::vector<std::string> skipped;
    for (const SkippedFile& file : list.skipped) skipped.push_back(file.name + " " + file.reason);
    return skipped;
  };
  std::error_code error;
  const PictureList one = ListPictures(folder.Path(), false, error);
  EXPECT_THAT(one.pictures, ElementsAre("C.JPG", "a.jpeg", "b.jpg", "e.Jpeg"));
  EXPECT_THAT(texts(one), ElementsAre("d.png no .jpg, .jpeg", "jpg no .jpg, .jpeg",
                                      "p.jpg is a folder", "p.jpg-2 is a folder"));
  const PictureList prints = ListPictures(folder.Path(), true, error);
  EXPECT_FALSE(error);
  EXPECT_THAT(prints.pictures, ElementsAre("p.jpg-2/g.jpg", "p.jpg/e.jpg"));
  EXPECT_THAT(texts(prints), testing::Contains("a.jpeg is in no print's folder"));
  EXPECT_THAT(texts(prints), testing::Contains("p.jpg/below is a folder"));
  // Of "1 p.jpg-2/g.jpg\n1 p.jpg/e.jpg\n", by another program.
  EXPECT_EQ(prints.sha256, "592529122503a5a4142bfa6c42cbb8e3b217482fef495e2253674c26e26008ad");
  EXPECT_THAT(ListPictures(folder / "nothing", false, error).pictures, IsEmpty());
  EXPECT_TRUE(error);
}

TEST(ReplayTurnTest, ShardsCutBetweenPrintsAndHoldEveryPictureOnce) {
  const auto turns = TurnsOf({"a/1", "a/2", "a/3", "b/1", "c/1", "c/2"}, false);
  std::string statuses;
  for (const Turn& turn : turns) statuses += turn.status + ",";
  EXPECT_EQ(statuses, "first,,last,first,first,last,");
  EXPECT_EQ(TurnsOf({"1", "2"}, true)[1].status, "first");
  for (const size_t count : {1U, 2U, 3U, 4U, 9U}) {
    std::vector<std::string> seen;
    for (size_t index = 1; index <= count; ++index) {
      const std::vector<Turn> own = TurnsOf({index, count}, turns);
      EXPECT_TRUE(own.empty() || own.front().status == "first") << index << "/" << count;
      for (const Turn& turn : own) seen.push_back(turn.picture);
    }
    EXPECT_THAT(seen, ElementsAre("a/1", "a/2", "a/3", "b/1", "c/1", "c/2")) << count;
  }
  EXPECT_EQ(TurnsOf({1, 2}, turns).size(), 3U) << "cut where half of the pictures are";
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

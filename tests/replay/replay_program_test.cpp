// The program itself, on drawn scenes through the virtual board's runtime and networks.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "service/analysis/picture/image_files.h"
#include "support/temp_dir.h"
#include "utils/safe_exec.h"
#include "virtual_board/chart/scene.h"

namespace varnel::replay {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

using Objects = std::vector<std::pair<std::string, std::array<int, 4>>>;

class ReplayProgramTest : public testing::Test {
 protected:
  /// Draws a picture; look-alikes are no objects that people would label.
  void Show(const std::string& picture, const Objects& objects) {
    board::Scene scene;
    for (const auto& [label, box] : objects) {
      scene.objects.push_back({board::ColourOf(label), box});
      if (label == "lookalike") continue;
      labels_ += json{{"picture", picture}, {"label", label}, {"box", box}}.dump() + "\n";
    }
    board::Image image = DrawScene(scene);
    service::ImageBuffer view;
    view.width = static_cast<int32_t>(image.width);
    view.height = static_cast<int32_t>(image.height);
    view.virt_addr = image.rgb.data();
    view.size = image.rgb.size();
    const std::filesystem::path file = files_ / "pictures" / picture;
    std::filesystem::create_directories(file.parent_path());
    ASSERT_EQ(service::write_image(files_ / "drawn.jpg", view), 0);
    std::filesystem::rename(files_ / "drawn.jpg", file);
  }

  utils::SafeExec::Result Run(const std::vector<std::string>& arguments,
                              const std::string& models = VARNEL_NETWORKS) {
    utils::SafeExec program(VARNEL_REPLAY);
    program.AddArg("--runtime").AddArg(VARNEL_VIRTUAL_NPU).AddArg("--models").AddArg(models);
    program.AddArg("--out").AddArg(files_ / "out");
    for (const std::string& argument : arguments) program.AddArg(argument);
    program.AddArg(files_ / "pictures").SetTimeout(120000);
    return program.Execute();
  }
  /// Into "merged", of these folders.
  utils::SafeExec::Result Merge(const std::vector<std::string>& shards) {
    utils::SafeExec program(VARNEL_REPLAY);
    program.AddArg("--merge").AddArg("--out").AddArg(files_ / "merged");
    for (const std::string& shard : shards) program.AddArg(files_ / shard);
    program.SetTimeout(120000);
    return program.Execute();
  }
  /// Changes one value of a shard's report, merges 1, 2 and 3, and changes it back.
  std::string MergeWith(const std::string& shard, const std::string& member, const json& value) {
    const std::string whole = test::ReadFile(files_ / (shard + "/report.json"));
    json report = json::parse(whole);
    report[json::json_pointer(member)] = value;
    files_.Write(shard + "/report.json", report.dump());
    const auto run = Merge({"1", "2", "3"});
    files_.Write(shard + "/report.json", whole);
    return run.exit_code == 1 ? run.standard_error : "merged";
  }
  [[nodiscard]] std::string LabelsFile() const { return files_.Write("labels.jsonl", labels_); }
  [[nodiscard]] json Report() const {
    return json::parse(test::ReadFile(files_ / "out/report.json"));
  }

  const test::TempDir files_;
  std::string labels_;
};

TEST_F(ReplayProgramTest, KnownScenesAreFoundWhole) {
  const std::vector<std::string> labels = {"item", "nozzle", "legend_text", "extrusion_line"};
  for (int i = 0; i < 3; ++i) {
    Objects objects;
    for (int k = 0; k < 4; ++k) {
      const int left = 60 + k * 450 + i * 70;
      const int top = 200 + ((k + i) % 3) * 250;
      const int size = k == i ? 42 : 170;  // the smallest that the network has to find
      objects.emplace_back(labels[static_cast<size_t>(k)],
                           std::array<int, 4>{left, top, left + size, top + size});
    }
    Show("scene" + std::to_string(i) + ".jpg", objects);
  }
  const auto run = Run({"--algorithm", "beditem", "--labels-file", LabelsFile()});
  ASSERT_EQ(run.exit_code, 0) << run.standard_error;
  EXPECT_THAT(run.standard_error, HasSubstr("3/3 scene2.jpg: succeed, 4 found"));
  EXPECT_THAT(run.standard_output, HasSubstr("3 pictures judged, 0 not"));
  const json report = Report();
  for (const std::string& label : labels) {
    for (const char* kind : {"network", "decision"}) {
      const json& scores = report[kind]["classes"][label];
      EXPECT_EQ(scores["precision"], 1) << kind << label;
      EXPECT_EQ(scores["recall"], 1) << kind << label;
      EXPECT_EQ(report[kind]["confusion"][label][label], 3);
    }
  }
  EXPECT_EQ(report["pictures"][0]["detect_status"], "first");
  EXPECT_EQ(report["pictures"][2]["statistics"]["item"]["obj_cnts"], 3) << "over all pictures";
  EXPECT_EQ(report["totals"]["labels"]["nozzle"]["found"], 3);
  EXPECT_THAT(test::ReadFile(files_ / "out/sweep.svg"), HasSubstr("legend_text precision"));
  for (const json& picture : report["pictures"]) {
    service::Image annotated;
    const std::string file = files_ / ("out/" + picture["annotated"].get<std::string>());
    EXPECT_EQ(service::read_image(file, annotated), 0);
    EXPECT_EQ(annotated.buffer.width, 1920);
  }
  const std::filesystem::directory_iterator left(files_ / "out/annotated");
  EXPECT_EQ(std::distance(begin(left), end(left)), 3) << "nothing else stays there";
}

TEST_F(ReplayProgramTest, WhatCannotBeJudgedIsCountedAndTheRestIsJudged) {
  Show("a.jpg", {{"noodle", {300, 300, 540, 540}}, {"lookalike", {1200, 600, 1500, 800}}});
  Show("b.jpg", {{"noodle", {900, 400, 1140, 640}}, {"item", {100, 800, 300, 1000}}});
  files_.Write("pictures/c.jpg", "no picture");
  const auto run = Run({"--labels-file", LabelsFile()});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.standard_output, HasSubstr("fail to read picture file: 1"));
  EXPECT_THAT(run.standard_output, HasSubstr("1 objects labelled item left out"));
  json report = Report();
  EXPECT_EQ(report["network"]["classes"]["noodle"]["precision"], 0.6667) << "a look-alike";
  EXPECT_EQ(report["decision"]["classes"]["noodle"]["precision"], 1) << "which was rejected";
  EXPECT_EQ(report["pictures"][2]["code"], -5);
  EXPECT_EQ(report["pictures"][2]["annotated"], nullptr);
  const json sweep = report["sweep"];
  // A threshold that nothing exceeds decides, and leaves the sweep as it was.
  EXPECT_EQ(Run({"--labels-file", LabelsFile(), "--threshold", "noodle=0.99"}).exit_code, 1);
  report = Report();
  EXPECT_EQ(report["thresholds"]["noodle"], 0.99);
  EXPECT_EQ(report["totals"]["labels"]["noodle"]["found"], 0);
  EXPECT_EQ(report["decision"]["classes"]["noodle"]["recall"], 0);
  EXPECT_EQ(report["sweep"], sweep);
  EXPECT_EQ(sweep["classes"]["noodle"]["recall"][9], 1);
}

/// Two prints: in one a noodle was there before and another comes, in the other all is new.
class ReplayPrintsTest : public ReplayProgramTest {
 protected:
  void SetUp() override {
    const Objects::value_type old = {"noodle", {300, 300, 540, 540}};
    const Objects::value_type fresh = {"noodle", {900, 400, 1140, 640}};
    const Objects::value_type lookalike = {"lookalike", {1200, 700, 1500, 900}};
    Show("p1/a.jpg", {old});
    Show("p1/b.JPG", {old, lookalike});
    Show("p1/c.Jpeg", {old, fresh});
    Show("p2/a.jpg", {});
    Show("p2/b.jpg", {fresh});
    files_.Write("pictures/p2/c.jpg", "no picture");
    files_.Write("pictures/notes.txt", "");
  }
};

TEST_F(ReplayPrintsTest, WhatTheReferenceExplainsIsNotMissed) {
  const std::string labels = LabelsFile();
  const auto run = Run({"--prints", "--labels-file", labels});
  EXPECT_THAT(run.standard_output, HasSubstr("there before the print: 2"));
  EXPECT_THAT(run.standard_output, HasSubstr("explained: there before the print"));
  json report = Report();
  json decision = report["decision"]["classes"]["noodle"];
  EXPECT_EQ(decision["explained"], 2);
  EXPECT_EQ(decision["misses"], 0);
  EXPECT_EQ(decision["recall"], 1);
  const auto& pictures = report["pictures"];
  EXPECT_EQ(pictures[3]["detect_status"], "first") << "the second print";
  std::vector<std::pair<json, bool>> reasons;
  for (const json& find : pictures[1]["detections"]) {
    reasons.emplace_back(find["reason"], find["verified"] >= 0.7);
    EXPECT_EQ(find["flag"], 1);
  }
  EXPECT_THAT(reasons,
              UnorderedElementsAre(Pair(json("there before the print"), true),
                                   Pair(json("rejected by the verifying network"), false)));
  const json& sweep = report["verify_sweep"]["classes"]["noodle"];
  EXPECT_EQ(sweep["hits"][13], 5) << "without the reference";
  EXPECT_EQ(sweep["false_alarms"][13], 0);
  EXPECT_THAT(test::ReadFile(files_ / "out/verify_sweep.svg"), HasSubstr("threshold 0.70"));

  EXPECT_EQ(Run({"--prints", "--independent", "--labels-file", labels}).exit_code, 1);
  report = Report();
  decision = report["decision"]["classes"]["noodle"];
  EXPECT_EQ(decision["explained"], 0);
  EXPECT_EQ(decision["hits"], 5);
  EXPECT_EQ(report["pictures"][1]["statistics"]["noodle"]["obj_cnts"], 1) << "no history";
}

/// What may differ between two runs.
std::string WithoutTimes(const std::string& text) {
  static const std::regex kTimes(
      R"re("(date|milliseconds|mean|median|longest)": ?("[^"]*"|[0-9.e+-]+)|.* ms a picture.*)re");
  return std::regex_replace(text, kTimes, "$1");
}

TEST_F(ReplayPrintsTest, MergedShardsAreOneRun) {
  const std::string labels = LabelsFile();
  const std::vector<std::string> arguments = {"--prints", "--labels-file", labels};
  const auto one = Run(arguments);
  for (const char* shard : {"1", "2", "3"}) {
    auto cut = arguments;
    cut.insert(cut.end(), {"--out", files_ / shard, "--shard", std::string(shard) + "/3"});
    EXPECT_EQ(Run(cut).exit_code, *shard == '2' ? 1 : 0) << "a picture of 2 is broken";
  }
  const auto merged = Merge({"3", "1", "2"});
  EXPECT_EQ(merged.exit_code, 1) << merged.standard_error;
  const auto file = [&](const char* folder, const std::string& name) {
    return test::ReadFile(files_ / folder / name);
  };
  EXPECT_EQ(WithoutTimes(file("merged", "report.json")), WithoutTimes(file("out", "report.json")));
  for (const char* name : {"sweep.svg", "verify_sweep.svg", "annotated/p1/b.JPG"}) {
    EXPECT_NE(file("out", name), "") << name;
    EXPECT_EQ(file("merged", name), file("out", name)) << name;
  }
  const auto told = [](const std::string& text) {
    return WithoutTimes(text.substr(0, text.rfind("best F1")));
  };
  EXPECT_EQ(told(merged.standard_output), told(one.standard_output));

  EXPECT_THAT(Merge({"1", "3"}).standard_error, HasSubstr("shard 2 of 3 is missing"));
  EXPECT_THAT(Merge({"1", "2", "2", "3"}).standard_error, HasSubstr("2 of 3 is there twice"));
  EXPECT_THAT(Merge({"1", "nothing"}).standard_error, HasSubstr("nothing/report.json: No such"));
  EXPECT_THAT(Merge({"1", "out"}).standard_error, HasSubstr("no report of a shard"));
  EXPECT_THAT(MergeWith("2", "/networks/0/sha256", "0"), HasSubstr("other networks"));
  EXPECT_THAT(MergeWith("3", "/picture_list/sha256", "0"), HasSubstr("another list of pictures"));
  EXPECT_THAT(MergeWith("3", "/shard/count", 4), HasSubstr("one of 4"));
  EXPECT_THAT(MergeWith("1", "/interrupted", true), HasSubstr("was interrupted"));
  EXPECT_THAT(MergeWith("1", "/totals", json()), HasSubstr("not as it was written"));
  EXPECT_EQ(WithoutTimes(file("merged", "report.json")), WithoutTimes(file("out", "report.json")))
      << "a refused merge leaves what is there";
}

TEST_F(ReplayProgramTest, WithoutWhatItNeedsItSaysSo) {
  files_.Write("pictures/notes.txt", "");
  EXPECT_THAT(Run({}).standard_error, HasSubstr("no picture (.jpg, .jpeg) in it"));
  Show("a.jpg", {});
  const auto no_networks = Run({}, files_ / "nothing");
  EXPECT_EQ(no_networks.exit_code, 1);
  EXPECT_THAT(no_networks.standard_error, HasSubstr("nothing/print_check.fp.rknn"));
  const auto no_runtime = Run({"--runtime", "/nonexistent.so"});
  EXPECT_EQ(no_runtime.exit_code, 1);
  EXPECT_THAT(no_runtime.standard_error, HasSubstr("no NPU runtime: /nonexistent.so"));
  labels_ = "{}\n";
  EXPECT_THAT(Run({"--labels-file", LabelsFile()}).standard_error,
              HasSubstr("labels.jsonl: line 1: \"picture\""));
  EXPECT_EQ(Run({"--labels-file", files_.Path()}).exit_code, 1);
  std::filesystem::rename(files_ / "pictures", files_ / "annotated");
  std::filesystem::create_directory_symlink(files_ / "annotated", files_ / "pictures");
  EXPECT_THAT(Run({"--out", files_.Path()}).standard_error, HasSubstr("would replace"));
  EXPECT_EQ(Run({"--faster"}).exit_code, 2);
}

}  // namespace
}  // namespace varnel::replay

// The program itself, on drawn scenes through the virtual board's runtime and networks.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "service/analysis/image_files.h"
#include "support/temp_dir.h"
#include "utils/safe_exec.h"
#include "virtual_board/chart/scene.h"

namespace varnel::replay {
namespace {

using nlohmann::json;
using testing::HasSubstr;

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
    files_.Write("pictures/.keep", "");
    ASSERT_EQ(service::write_image((files_ / "pictures" / picture).string(), view), 0);
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
      objects.emplace_back(labels[static_cast<size_t>(k)],
                           std::array<int, 4>{left, top, left + 180, top + 150});
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

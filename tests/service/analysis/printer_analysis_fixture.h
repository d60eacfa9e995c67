#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "service/analysis/decision/printer_analysis.h"
#include "service/analysis/network/rknn_library.h"
#include "service/analysis/npu_stand_in.h"
#include "service/analysis/picture/image_files.h"
#include "service/analysis/pictures.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {

/// What a scripted network finds: a box of 80x80 around the centre (8 * column + 4, 8 * row + 4).
struct Found {
  uint32_t row = 30;
  uint32_t column = 30;
  uint32_t cls = 0;
  float score = 0.9F;
  uint32_t reach = 5;  ///< to each side, in cells of 8 pixels
};

inline const nlohmann::json kNoodle = {{"labels", {"noodle"}}};
inline const nlohmann::json kBedLabels = {"item", "nozzle", "legend_text", "extrusion_line"};
inline const nlohmann::json kZeros = {
    {"obj_areas", 0.0}, {"obj_cnts", 0}, {"obj_probs", 0.0}, {"obj_weighted_probs", 0.0}};

/// An analysis on a board of its own: networks of 640x640 whose finds a test scripts.
class PrinterAnalysisTest : public testing::Test {
 protected:
  PrinterAnalysisTest() {
    TheNpuScript() = {};
    for (const char* file : {"bed_check", "print_check", "noodle_verify"})
      dir_.Write("model/" + std::string(file) + ".fp.rknn", "");
    NoodlesAre({});
    ItemsAre({});
    VerifierSays(1.0F);
  }

  ~PrinterAnalysisTest() override {
    analysis_.reset();
    EXPECT_THAT(TheNpuScript().loaded, testing::IsEmpty());
    EXPECT_THAT(TheNpuScript().outputs, testing::IsEmpty());
    EXPECT_EQ(TheNpuScript().wrong_calls, 0);
  }

  void Boot(std::string_view config = kBuiltInModelConfig) {
    analysis_.reset();
    AnalysisSetup setup;
    setup.models = dir_ / "model";
    setup.results = dir_ / "results";
    setup.library = &library_;
    setup.config = config;
    setup.clock = clock_;
    analysis_ = std::make_unique<PrinterAnalysis>(setup);
  }

  /// Also of a network that is loaded now.
  void NoodlesAre(const std::vector<Found>& found) { Script("print_check", 1, found); }
  void ItemsAre(const std::vector<Found>& found) { Script("bed_check", 4, found); }
  void VerifierSays(float noodle) {
    TheNpuScript().networks["noodle_verify.fp.rknn"] =
        ScriptedNetwork::Classifying(64, 64, {1 - noodle, noodle});
  }

  std::string Save(const Image& image) const {
    std::string path = dir_ / "picture.jpg";
    EXPECT_EQ(write_image_jpeg(path, kJpegQuality, image.buffer), 0);
    return path;
  }
  int Code(const std::string& path, const nlohmann::json& params) {
    result_ = analysis_->DetectPicture(path, params);
    EXPECT_EQ(result_.data.value("err_code", 99), result_.Code());
    return result_.Code();
  }
  nlohmann::json Detect(const nlohmann::json& params, const Image& image = Plain(640, 640, 128)) {
    (void)Code(Save(image), params);
    return result_.data;
  }
  nlohmann::json DetectNoodles(const char* status, const Image& image = Plain(640, 640, 128)) {
    return Detect({{"labels", {"noodle"}}, {"detect_status", status}}, image);
  }
  nlohmann::json DetectItems(const char* status, const Image& image = Plain(640, 640, 128)) {
    return Detect({{"labels", kBedLabels}, {"detect_status", status}}, image);
  }
  std::vector<uint32_t> Flags() const {
    std::vector<uint32_t> flags;
    for (const Detection& result : Results(analysis_->Latest().found)) flags.push_back(result.flag);
    return flags;
  }
  /// File names below the results.
  std::set<std::string> Files(const std::string& directory) const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / ("results/" + directory)))
      names.insert(entry.path().filename());
    return names;
  }

  test::LogCapture log_;
  test::TempDir dir_;
  utils::Clock* clock_ = nullptr;
  const RknnLibrary library_{{kNpuStandIn}};
  std::unique_ptr<PrinterAnalysis> analysis_;
  AnalysisResult result_;

 private:
  static void Script(const std::string& name, uint32_t classes, const std::vector<Found>& found) {
    ScriptedNetwork network = ScriptedNetwork::Detecting(640, 640, classes);
    for (const Found& one : found) {
      network.Place(0, one.row, one.column, one.cls, one.score,
                    {one.reach, one.reach, one.reach, one.reach});
    }
    for (auto& [handle, loaded] : TheNpuScript().loaded) {
      if (loaded.values.size() == network.values.size() &&
          loaded.outputs[1].dims == network.outputs[1].dims)
        loaded = network;
    }
    TheNpuScript().networks[name + ".fp.rknn"] = std::move(network);
  }
};

}  // namespace varnel::service

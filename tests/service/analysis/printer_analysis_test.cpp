#include "service/analysis/decision/printer_analysis.h"

#include <gmock/gmock.h>

#include <cstring>
#include <random>
#include <thread>

#include "service/analysis/jpeg_files.h"
#include "service/analysis/printer_analysis_fixture.h"
#include "support/eventually.h"
#include "support/fake_clock.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(PrinterAnalysisTest, EachCauseHasItsCodeAndText) {
  const std::string good = Save(Plain(640, 640, 128));
  const std::string dark = dir_ / "dark.jpg";
  ASSERT_EQ(write_image_jpeg(dark, 90, Plain(64, 64, 0).buffer), 0);
  const std::string corrupt = dir_.Write("corrupt.jpg", "no picture");
  Boot("[]");
  EXPECT_FALSE(analysis_->Ready());
  EXPECT_EQ(Code(good, kNoodle), -7);
  EXPECT_STREQ(result_.Message(), "printer analysis module not ready");
  Boot();
  EXPECT_TRUE(analysis_->Ready());
  const struct {
    std::string path;
    json params;
    int code;
    const char* message;
  } cases[] = {
      {"", kNoodle, -6, "file path of picture is error"},
      {dir_ / "missing.jpg", kNoodle, -5, "fail to read picture file"},
      {corrupt, kNoodle, -5, "fail to read picture file"},
      {dark, kNoodle, -3, "picture is abnormal"},
      {good, {{"labels", {"wraphead"}}}, -1, "model load fail when detect"},
      {good, {{"labels", {"item"}}}, -2, "cannot find corresponding model at current phase"},
      {good, {{"labels", {"nozzle", "item", "legend_text", "extrusion_line"}}}, -2, nullptr},
      {good, {{"labels", "noodle"}}, -2, nullptr},
      {good, {{"labels", {7}}}, -2, nullptr},
      {good, {{"labels", json::array()}}, -2, nullptr},
      {good, nullptr, -2, nullptr},
      {good, kNoodle, 0, "succeed"},
      {good,
       {{"labels", {"noodle"}}, {"detect_status", 7}, {"z_position", "high"}, {"noodle", 3}},
       0,
       nullptr},
      {good,
       {{"labels", {"noodle"}}, {"z_position", 1e300}, {"noodle", {{"threshold", "x"}}}},
       0,
       nullptr},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(Code(test.path, test.params), test.code) << test.path << test.params;
    EXPECT_STREQ(result_.Message(), test.message == nullptr ? result_.Message() : test.message);
    EXPECT_EQ(result_.data.size(), test.code == 0 ? 2U : 1U);
  }
  EXPECT_EQ(TheNpuScript().runs, 3) << "no network sees a picture that is not fit for it";
  for (const char* function : {"rknn_inputs_set", "rknn_run", "rknn_outputs_get"}) {
    TheNpuScript().failures = {{function, {.code = -2}}};
    EXPECT_EQ(Code(good, kNoodle), -4) << function;
  }
  EXPECT_STREQ(result_.Message(), "model inference failed");
  TheNpuScript().failures.clear();
  EXPECT_EQ(Code(good, kNoodle), 0);
  for (const char* line :
       {"DetectPicture error, path is empty", "find model failed |wraphead",
        "cannot find algorithm for labels |item", "DetectPicture cannot find algorithm |item",
        "image is abnormal! ret=-4 img=", "DetectPicture cannot find algorithm "})
    EXPECT_NE(log_.Text().find(line), std::string::npos) << line;
}

TEST_F(PrinterAnalysisTest, KindAndBrightnessOfAPictureDecideItsCode) {
  Boot();
  const struct {
    const char* name;
    std::string file;
    int code;
  } kinds[] = {
      {"grey", Jpeg(TJPF_GRAY, TJSAMP_GRAY, 0), 0},
      {"progressive", ProgressiveJpeg(), 0},
      {"truncated", GoodJpeg().substr(0, GoodJpeg().size() * 3 / 4), 0},
      {"mostly missing", GoodJpeg().substr(0, GoodJpeg().size() * 3 / 8), -5},
      {"cmyk", Jpeg(TJPF_CMYK, TJSAMP_444, 0), -5},
      {"more than 64 million pixels", ResizedJpeg(8001, 8000), -5},
  };
  for (const auto& kind : kinds)
    EXPECT_EQ(Code(dir_.Write("kind.jpg", kind.file), kNoodle), kind.code) << kind.name;
  const std::pair<uint8_t, int> greys[] = {{29, -3}, {30, 0}, {190, 0}, {191, -3}};
  for (const auto& [grey, code] : greys)
    EXPECT_EQ(Code(Save(Plain(64, 64, grey)), kNoodle), code) << int{grey};
  EXPECT_EQ(TheNpuScript().runs, 5);
}

TEST_F(PrinterAnalysisTest, ANetworkThatCannotBeLoadedIsTriedAgain) {
  Boot();
  TheNpuScript().failures = {{"rknn_init", {.code = -6}}};
  DetectNoodles("");
  EXPECT_EQ(result_.Code(), -1);
  TheNpuScript().failures.clear();
  fs::remove(dir_ / "model/print_check.fp.rknn");
  DetectNoodles("");
  EXPECT_EQ(result_.Code(), -1);
  const std::string path = (dir_ / "model/print_check.fp.rknn").string();
  EXPECT_TRUE(log_.Has("ANALYSIS", "init fail! model file not exists ! model_path=" + path));
  EXPECT_TRUE(log_.Has(
      "ANALYSIS", "init_yolo11_model fail! error code=-1 name=print_check model_path=" + path));
  EXPECT_EQ(log_.Count("ANALYSIS", "DetectPicture EnsureLoad fail print_check"), 2U);
  dir_.Write("model/print_check.fp.rknn", "");
  DetectNoodles("");
  EXPECT_EQ(result_.Code(), 0);
  EXPECT_THAT(log_.Text(),
              testing::HasSubstr(" ms: input 640x640x3, outputs 1x64x80x80 1x1x80x80 1x64x40x40 "
                                 "1x1x40x40 1x64x20x20 1x1x20x20, runtime 2.3.2 (scripted), driver "
                                 "0.9.6\n"));
}

TEST_F(PrinterAnalysisTest, AnNpuThatDoesNotAnswerHoldsNobodyUp) {
  test::FakeClock clock;
  clock_ = &clock;
  const auto threads = [] {
    return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
  };
  const auto threads_before = threads();
  NoodlesAre({{}});
  for (const bool destroyed : {false, true}) {
    Boot();
    EXPECT_EQ(DetectNoodles("first")["noodle"]["obj_cnts"], 1);
    EXPECT_EQ(DetectNoodles("", Plain(640, 640, 60))["noodle"]["obj_cnts"], 1);
    const auto gate = TheNpuScript().gate = std::make_shared<NpuScript::Gate>();
    std::jthread request([&] { DetectNoodles(""); });
    gate->reached.get_future().wait();
    clock.AwaitWaiters(1);
    clock.Advance(NpuThread::kPatience);
    request.join();
    EXPECT_EQ(result_.Code(), -4);
    const int inits = TheNpuScript().inits;
    DetectNoodles("first");
    EXPECT_EQ(result_.Code(), -4) << "at once, since no time passes";
    DetectItems("");
    EXPECT_EQ(result_.Code(), -4);
    EXPECT_EQ(TheNpuScript().inits, inits) << "no other call reaches a runtime that hangs";
    if (destroyed) analysis_.reset();
    gate->open.set_value();
    ASSERT_TRUE(test::Eventually(
        [&] { return log_.Count("ANALYSIS", "The NPU answers again") == (destroyed ? 2U : 1U); }));
    EXPECT_THAT(TheNpuScript().loaded, IsEmpty());
    if (destroyed) continue;
    EXPECT_EQ(DetectNoodles("", Plain(640, 640, 60))["noodle"]["obj_cnts"], 1)
        << "a print began in the meantime";
  }
  EXPECT_TRUE(test::Eventually([&] { return threads() == threads_before; }));
  EXPECT_EQ(
      log_.Count("ANALYSIS", "The NPU has not answered for 60 s, detections fail until it does"),
      2U);
  EXPECT_THAT(Files("org"), SizeIs(7)) << "also of the runs that hung";
}

TEST_F(PrinterAnalysisTest, AnUnusableModelLeavesTheOthers) {
  Boot(R"({"models": {
    "bed_check": {"labels": ["item"], "fname": ""},
    "noodle_verify": {"labels": ["verify_noodle"], "fname": "missing.rknn", "preload": true},
    "print_check": {"labels": ["wraphead"], "fname": "print_check.fp.rknn", "preload": true},
    "spare": {"fname": "x"}}})");
  ASSERT_THAT(analysis_->Models().Models(), SizeIs(1));
  EXPECT_THAT(TheNpuScript().loaded, SizeIs(1));
  for (const char* line :
       {"construct model bed_check", "file name of model bed_check is empty or missing",
        "create model bed_check failed", "create model: bed_check failed",
        "load model noodle_verify failed", "create model: noodle_verify failed",
        "load model print_check ok", "no model find with name: spare"})
    EXPECT_TRUE(log_.Has("ANALYSIS", line)) << line;
  Detect({{"labels", {"wraphead"}}, {"detect_status", "last"}});
  EXPECT_EQ(result_.data, json({{"err_code", 0}, {"wraphead", kZeros}}));
  EXPECT_THAT(TheNpuScript().loaded, SizeIs(1)) << "nothing is unloaded unless told so";
}

TEST_F(PrinterAnalysisTest, ModelsAreFoundByTheirLabels) {
  Boot();
  const auto name = [this](const std::vector<std::string>& labels) {
    const Model* model = analysis_->Models().Find(labels);
    return std::string(model == nullptr ? "none" : model->Name());
  };
  EXPECT_EQ(name({}), "bed_check");
  EXPECT_EQ(name({"nozzle", "item"}), "bed_check");
  EXPECT_EQ(name({"noodle"}), "print_check");
  EXPECT_EQ(name({"verify_noodle"}), "noodle_verify");
  EXPECT_EQ(name({"noodle", "item"}), "none");
}

TEST_F(PrinterAnalysisTest, ACleanPictureAnswersEveryLabelWithZeros) {
  Boot();
  EXPECT_EQ(DetectItems(""), json({{"err_code", 0},
                                   {"item", kZeros},
                                   {"nozzle", kZeros},
                                   {"legend_text", kZeros},
                                   {"extrusion_line", kZeros}}));
}

TEST_F(PrinterAnalysisTest, NoodlesAreVerifiedAndCountedOverThePrint) {
  Boot();
  NoodlesAre({{}, {.row = 60, .column = 10, .score = 0.85F}});
  const json once = DetectNoodles("")["noodle"];
  EXPECT_EQ(once["obj_cnts"], 2);
  EXPECT_EQ(once["obj_areas"], 0.0312) << "12800 / 409600.1";
  EXPECT_EQ(once["obj_probs"], 0.9);
  EXPECT_EQ(once["obj_weighted_probs"], 0.875);
  VerifierSays(0.69F);
  EXPECT_EQ(DetectNoodles("")["noodle"], once) << "rejected ones count nowhere";
  EXPECT_THAT(Flags(), ElementsAre(1, 1));
  VerifierSays(0.7F);
  EXPECT_EQ(DetectNoodles("")["noodle"]["obj_cnts"], 4);
  TheNpuScript().networks.erase("noodle_verify.fp.rknn");
  EXPECT_EQ(DetectNoodles("")["noodle"]["obj_cnts"], 6) << "what cannot be verified counts";
  EXPECT_TRUE(log_.Has("ANALYSIS", "cannot load verify_model for verify_noodle"));
  EXPECT_TRUE(log_.Has("ANALYSIS", "verify model check disable this item cls_label_idx:1"));
  EXPECT_TRUE(
      log_.Has("ANALYSIS", "detect status: status:  z: 0 name: noodle_algorithm his size: 3"));
  EXPECT_THAT(Files("crop"), SizeIs(6)) << "of the two pictures that failed";
  EXPECT_THAT(Files("crop"), testing::Contains("printer_detect2.2.val_fail.jpg"));
}

TEST_F(PrinterAnalysisTest, WhatTheVerifyingNetworkCannotTellCounts) {
  const struct {
    const char* call;  ///< passes for the detection network and fails for the verifying one
    const char* setting;
    const char* instead;
    const char* line;
  } cases[] = {
      {"rknn_inputs_set", "", "", "verify model noodle_verify failed ret=-2"},
      {"rknn_run", "", "", "verify model noodle_verify failed ret=-2"},
      {"rknn_outputs_get", "", "", "verify model noodle_verify failed ret=-2"},
      {"", "\"cls_label_idx\": 1", "\"cls_label_idx\": 2",
       "cannot load verify_model for verify_noodle"},
      {"", "\"cls_label_idx\": 1", "\"cls_label_idx\": -1",
       "verify model noodle_verify has 2 values, none with index -1"},
      {"", "verify_noodle", "verify_other", "cannot find verify_model for verify_noodle"},
  };
  VerifierSays(0);  // whoever hears it, rejects the find
  NoodlesAre({{}});
  for (const auto& test : cases) {
    std::string config(kBuiltInModelConfig);
    config.replace(config.find(test.setting), std::strlen(test.setting), test.instead);
    Boot(config);
    TheNpuScript().failures = {{test.call, {.code = -2, .passing = 1}}};
    const std::string name = std::string(test.call) + test.instead;
    const size_t told = log_.Count("ANALYSIS", test.line);
    EXPECT_EQ(DetectNoodles("")["noodle"]["obj_cnts"], 1) << name;
    EXPECT_EQ(result_.Code(), 0) << name;
    EXPECT_EQ(log_.Count("ANALYSIS", test.line), told + 1) << name;
    EXPECT_THAT(TheNpuScript().files, ElementsAre(testing::Pair(testing::_, "print_check.fp.rknn")))
        << name;
    EXPECT_THAT(TheNpuScript().outputs, IsEmpty()) << name;
  }
  Boot();
  NoodlesAre({{}, {.row = 60, .column = 10}});
  TheNpuScript().failures = {{"rknn_run", {.code = -2, .passing = 1, .failing = 1}}};
  EXPECT_EQ(DetectNoodles("")["noodle"]["obj_cnts"], 1)
      << "the other find is rejected all the same";
}

TEST_F(PrinterAnalysisTest, ARequestMayHaveItsOwnThreshold) {
  Boot();
  NoodlesAre({{.score = 0.6F}});
  EXPECT_EQ(DetectNoodles("first")["noodle"], kZeros);
  json params = {{"labels", {"noodle"}}, {"detect_status", "first"}};
  const std::pair<json, int> cases[] = {{{{"threshold", 0.59}}, 1},
                                        {{{"threshold", 0.61}}, 0},
                                        {json::object(), 0},
                                        {{{"threshold", -1e300}}, 1},
                                        {{{"threshold", 1e300}}, 0}};
  for (const auto& [settings, count] : cases) {
    params["noodle"] = settings;
    EXPECT_EQ(Detect(params)["noodle"]["obj_cnts"] != 0, count != 0) << settings;
  }
}

TEST_F(PrinterAnalysisTest, WhatLayThereBeforeThePrintDoesNotCount) {
  Boot();
  const Rect box{204, 204, 284, 284};
  Image before = Plain(640, 640, 128);
  Scribble(before, box, 1);
  Image changed = Plain(640, 640, 128);
  Scribble(changed, box, 2);
  NoodlesAre({{}});
  EXPECT_EQ(DetectNoodles("first", before)["noodle"]["obj_cnts"], 1);
  EXPECT_TRUE(log_.Has("ANALYSIS", "found larger pre print noodle at box: 204 204 284 284"));
  NoodlesAre({{}, {.row = 60}});
  EXPECT_EQ(DetectNoodles("", before)["noodle"]["obj_cnts"], 1) << "only the new one";
  EXPECT_THAT(Flags(), ElementsAre(1, 0));
  EXPECT_EQ(log_.Count("ANALYSIS", "UpdatePrePrintImage"), 2U);
  NoodlesAre({{}});
  EXPECT_EQ(DetectNoodles("", changed)["noodle"]["obj_cnts"], 2) << "it grew";
  EXPECT_EQ(DetectNoodles("last", before)["noodle"]["obj_cnts"], 2);
  EXPECT_TRUE(log_.Has("ANALYSIS", "ClearPrePrintImage reset noodle_algorithm"));
  EXPECT_EQ(DetectNoodles("", before)["noodle"]["obj_cnts"], 3) << "no reference, no excuse";
}

TEST_F(PrinterAnalysisTest, WithoutANoodleAtTheBeginningOnlyAnEqualPictureExcuses) {
  Boot();
  const Rect high{204, 204, 284, 284};
  const Rect low{204, 444, 284, 524};
  Image before = Plain(640, 640, 128);
  Scribble(before, high, 1);
  Scribble(before, low, 1);
  EXPECT_EQ(DetectNoodles("first", before)["noodle"], kZeros);
  NoodlesAre({{}, {.row = 60, .score = 0.89F}});
  EXPECT_EQ(DetectNoodles("", before)["noodle"]["obj_cnts"], 1);
  EXPECT_THAT(Flags(), ElementsAre(1, 0)) << "the lower part of the picture is the print";
  Scribble(before, high, 2);
  EXPECT_EQ(DetectNoodles("", before)["noodle"]["obj_cnts"], 3);
}

TEST_F(PrinterAnalysisTest, ItemsAreReportedOnce) {
  Boot();
  Image bed = Plain(640, 640, 128);
  Scribble(bed, {204, 204, 284, 284}, 1);
  ItemsAre({{.score = 0.9F},
            {.row = 60, .cls = 1, .score = 0.89F},
            {.row = 5, .column = 5, .score = 0.88F, .reach = 2}});
  const json first = DetectItems("first", bed);
  EXPECT_THAT(Flags(), ElementsAre(0, 0x10, 2));
  EXPECT_EQ(first["item"]["obj_cnts"], 1);
  EXPECT_EQ(first["nozzle"], kZeros) << "nozzles are no items";
  EXPECT_EQ(DetectItems("", bed)["item"]["obj_cnts"], 1);
  EXPECT_THAT(Flags(), ElementsAre(1, 0x10, 2));
  EXPECT_TRUE(log_.Has("ANALYSIS", "found static obj: 204,204,284,284 204,204,284,284"));
  EXPECT_TRUE(log_.Has("ANALYSIS", "ClearPrePrintImage reset beditem_algorithm"));
  NoodlesAre({{}});
  EXPECT_EQ(DetectNoodles("", bed)["noodle"]["obj_cnts"], 1) << "an item is no noodle";
}

TEST_F(PrinterAnalysisTest, OneDetectionNetworkIsOnTheNpuAtATime) {
  Boot();
  TheNpuScript().networks["bed_check.fp.rknn"] = ScriptedNetwork::Detecting(64, 64, 4);
  std::mt19937 random(5);
  const std::string good = Save(Plain(128, 96, 128));
  const std::string missing = dir_ / "missing.jpg";
  const char* const statuses[] = {"first", "", "", "last"};
  for (int i = 0; i < 1000; ++i) {
    const bool noodle = random() % 2 == 0;
    const bool wrap = random() % 10 == 0;
    const std::string status = statuses[random() % 4];
    VerifierSays(random() % 2 == 0 ? 1.0F : 0.0F);
    ScriptedNetwork small = ScriptedNetwork::Detecting(64, 64, 1);
    if (random() % 2 == 0) small.Place(0, 4, 4, 0, 0.9F, {2, 2, 2, 2});
    TheNpuScript().networks["print_check.fp.rknn"] = std::move(small);
    const size_t before = TheNpuScript().loaded.size();
    json params = {{"detect_status", status}, {"labels", {"noodle"}}};
    if (!noodle) params["labels"] = {"item", "nozzle", "legend_text", "extrusion_line"};
    if (wrap) params["labels"] = {"wraphead"};
    Code(random() % 10 == 0 ? missing : good, params);
    const bool leaves = status == "last" || (noodle && status == "first");
    ASSERT_EQ(TheNpuScript().loaded.size(), wrap ? before : leaves ? 0U : 1U) << i;
    ASSERT_THAT(TheNpuScript().outputs, IsEmpty());
  }
  EXPECT_THAT(TheNpuScript().companies,
              ElementsAre(ElementsAre("bed_check.fp.rknn"),
                          ElementsAre("noodle_verify.fp.rknn", "print_check.fp.rknn"),
                          ElementsAre("print_check.fp.rknn")))
      << "never both detection networks, and the verifying one only beside that of noodles";
  analysis_.reset();
  EXPECT_TRUE(log_.Has("ANALYSIS", "PrinterAnalysis releasing..."));
}

}  // namespace
}  // namespace varnel::service

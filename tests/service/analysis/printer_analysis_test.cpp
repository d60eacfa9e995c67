#include "service/analysis/decision/printer_analysis.h"

#include <gmock/gmock.h>

#include <cstring>
#include <random>
#include <thread>

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

TEST_F(PrinterAnalysisTest, OnlyAFitPictureAndAKnownLabelListReachANetwork) {
  Boot("[]");
  EXPECT_FALSE(analysis_->Ready());
  EXPECT_EQ(Code("", kNoodle), -7);
  EXPECT_STREQ(result_.Message(), "printer analysis module not ready");
  Boot();
  EXPECT_TRUE(analysis_->Ready());
  EXPECT_EQ(Code("", kNoodle), -6);
  EXPECT_STREQ(result_.Message(), "file path of picture is error");
  EXPECT_EQ(Code(dir_.Write("corrupt.jpg", "no picture"), kNoodle), -5);
  EXPECT_EQ(Code(dir_ / "missing.jpg", kNoodle), -5);
  EXPECT_STREQ(result_.Message(), "fail to read picture file");
  EXPECT_EQ(Code(Save(Plain(64, 64, 29)), kNoodle), -3);
  const std::string good = Save(Plain(640, 640, 128));
  const json unknown[] = {
      {"nozzle", "item", "legend_text", "extrusion_line"}, "noodle", {7}, json::array()};
  for (const json& labels : unknown) EXPECT_EQ(Code(good, {{"labels", labels}}), -2) << labels;
  EXPECT_EQ(result_.data.size(), 1U);
  EXPECT_EQ(TheNpuScript().runs, 0);
  json params = {{"labels", {"noodle"}}, {"detect_status", 7}, {"z_position", "high"}};
  EXPECT_EQ(Code(good, params), 0);
  params.update({{"z_position", 1e300}, {"noodle", {{"threshold", "x"}}}});
  EXPECT_EQ(Code(good, params), 0);
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
      {"rknn_run", "", "", "verify model noodle_verify failed ret=-2"},
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
  VerifierSays(1);
  std::string other(kBuiltInModelConfig);
  Boot(other.replace(other.find("\"cls_label_idx\": 1"), 18, "\"cls_label_idx\": 0"));
  EXPECT_EQ(DetectNoodles("")["noodle"]["obj_cnts"], 0) << "the first value counts like any other";
  VerifierSays(0);
  Boot();
  NoodlesAre({{}, {.row = 60, .column = 10}});
  TheNpuScript().failures = {{"rknn_run", {.code = -2, .passing = 1, .failing = 1}}};
  EXPECT_EQ(DetectNoodles("")["noodle"]["obj_cnts"], 1)
      << "the other find is rejected all the same";
}

TEST_F(PrinterAnalysisTest, ARequestMayHaveItsOwnThreshold) {
  Boot();
  NoodlesAre({{.score = 0.6F}});
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
  NoodlesAre({{}, {.row = 60}});
  EXPECT_EQ(DetectNoodles("", before)["noodle"]["obj_cnts"], 1) << "only the new one";
  EXPECT_THAT(Flags(), ElementsAre(1, 0));
  NoodlesAre({{}});
  EXPECT_EQ(DetectNoodles("", changed)["noodle"]["obj_cnts"], 2) << "it grew";
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
  NoodlesAre({{}});
  EXPECT_EQ(DetectNoodles("", bed)["noodle"]["obj_cnts"], 1) << "an item is no noodle";
}

}  // namespace
}  // namespace varnel::service

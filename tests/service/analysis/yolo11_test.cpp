#include "service/analysis/network/yolo11.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "service/analysis/network/rknn_library.h"
#include "service/analysis/npu_stand_in.h"
#include "service/analysis/pictures.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr const char* kNetwork = "/model/test.fp.rknn";

class Yolo11Test : public testing::Test {
 protected:
  Yolo11Test() {
    script_ = NpuScript();
    network_ = ScriptedNetwork::Detecting(64, 64, 2);
  }
  ~Yolo11Test() override {
    release_yolo11_model(context_);
    EXPECT_TRUE(script_.loaded.empty());
    EXPECT_TRUE(script_.outputs.empty());
    EXPECT_EQ(script_.wrong_calls, 0);
  }

  int Load(const NetworkUse& use = {NetworkKind::kDetecting, 2}) {
    script_.networks["test.fp.rknn"] = network_;
    return Printing([&] { return init_yolo11_model(kNetwork, use, context_); });
  }
  int Find() {
    found_.count = 99;
    const std::vector<float> thresholds = {0.5F, 0.5F};
    return Printing(
        [&] { return inference_yolo11_model(context_, picture_, found_, thresholds, 0.5F); });
  }
  int Printing(const std::function<int()>& call) {
    testing::internal::CaptureStdout();
    const int code = call();
    printed_ = testing::internal::GetCapturedStdout();
    return code;
  }

  NpuScript& script_ = TheNpuScript();
  const RknnLibrary library_{{kNpuStandIn}};
  const test::LogCapture log_;
  NpuThread thread_;
  NpuContext context_{{thread_, &library_}};
  ScriptedNetwork network_;
  const Image image_ = Plain(128, 64, 200);
  ImageBuffer picture_ = image_.buffer;
  DetectionList found_;
  std::string printed_;
};

TEST_F(Yolo11Test, FindsAnObjectAndTellsItInPixelsOfThePicture) {
  network_.Place(0, 4, 2, 1, 0.75F, {1, 1, 2, 1});  // 12..36, 28..44 of 64 x 64 with 16 rows on top
  ASSERT_EQ(Load(), 0);
  for (int run = 0; run < 3; ++run) {
    ASSERT_EQ(Find(), 0);
    ASSERT_EQ(found_.count, 1);
    const Detection& found = found_.results[0];
    EXPECT_EQ(found.cls_id, 1);
    EXPECT_EQ(found.prop, 0.75F);
    EXPECT_EQ(found.box.left, 24);
    EXPECT_EQ(found.box.top, 24);
    EXPECT_EQ(found.box.right, 72);
    EXPECT_EQ(found.box.bottom, 56);
  }
  EXPECT_EQ(script_.input->type, TensorType::kUint8);
  EXPECT_EQ(script_.input->format, TensorFormat::kNhwc);
  EXPECT_EQ(script_.input->pass_through, 0);
  ASSERT_EQ(script_.picture.size(), 64U * 64 * 3);
  EXPECT_EQ(script_.picture[0], 114);
  EXPECT_EQ(script_.picture[size_t{32} * 64 * 3], 200);
}

TEST_F(Yolo11Test, ReadsTheShapeOfBothLayoutsAndServesAThirdOutputPerBranch) {
  network_ = ScriptedNetwork::OfInput(0, 0);
  network_.inputs[0].format = TensorFormat::kNchw;
  network_.inputs[0].dims = {1, 3, 32, 96};
  for (const uint32_t stride : {8U, 16U, 32U}) {
    network_.AddOutput({1, 16, 32 / stride, 96 / stride});
    network_.AddOutput({1, 2, 32 / stride, 96 / stride});
    network_.AddOutput({1, 1, 32 / stride, 96 / stride});
  }
  ASSERT_EQ(Load(), 0);
  EXPECT_EQ(context_.network->width, 96);
  EXPECT_EQ(context_.network->height, 32);
  EXPECT_EQ(context_.network->channel, 3);
  EXPECT_EQ(Find(), 0);
  EXPECT_EQ(found_.count, 0);
  // Another network takes its place.
  network_ = ScriptedNetwork::Detecting(64, 64, 2);
  ASSERT_EQ(Load(), 0);
  EXPECT_EQ(context_.network->width, 64);
  EXPECT_EQ(script_.highest_loaded, 1U);
}

TEST_F(Yolo11Test, EveryFailureOfTheRuntimeWhileLoadingLeavesNothingLoaded) {
  script_.failures["rknn_init"] = {-3, 0};
  EXPECT_EQ(Load(), -1);
  EXPECT_EQ(printed_, "rknn_init fail! ret=-3\n");
  script_.failures.clear();
  for (int passing = 0; passing < 8; ++passing) {  // the counts, one input, six outputs
    script_.failures["rknn_query"] = {-7, passing};
    EXPECT_EQ(Load(), -1) << passing;
    EXPECT_EQ(printed_, "rknn_query fail! ret=-7\n");
    EXPECT_TRUE(script_.loaded.empty());
    EXPECT_EQ(Find(), -1);
  }
  script_.failures.clear();
  EXPECT_EQ(Printing([&] { return init_yolo11_model("/model/other", {}, context_); }), -1);
  EXPECT_EQ(printed_, "rknn_init fail! ret=-6\n");
  EXPECT_EQ(Load(), 0);
}

TEST_F(Yolo11Test, EveryFailureOfTheRuntimeWhileRunningIsToldAndSurvived) {
  network_.Place(0, 4, 2, 1, 0.75F, {1, 1, 2, 1});
  const std::pair<const char*, const char*> failures[] = {
      {"rknn_inputs_set", "rknn_input_set fail! ret=-8\n"},
      {"rknn_run", "rknn_run fail! ret=-8\n"},
      {"rknn_outputs_get", "rknn_outputs_get fail! ret=-8\n"}};
  for (const auto& [function, message] : failures) {
    ASSERT_EQ(Load(), 0);
    script_.failures[function] = {-8, 0};
    EXPECT_EQ(Find(), -8);
    EXPECT_EQ(found_.count, 0);
    EXPECT_THAT(printed_, EndsWith(message));
    script_.failures[function] = {7, 0};  // whatever it is, it is no success
    ASSERT_EQ(Load(), 0);
    EXPECT_EQ(Find(), -1);
    script_.failures.clear();
  }
  script_.failures["rknn_outputs_release"] = {-9, 0};
  EXPECT_EQ(Find(), 0);
  picture_.virt_addr = nullptr;
  EXPECT_LT(Find(), 0);
  EXPECT_THAT(printed_, HasSubstr("convert_image_with_letterbox fail! ret="));
  script_.failures["rknn_destroy"] = {-1, 0};
  EXPECT_EQ(release_yolo11_model(context_), 0);
  EXPECT_FALSE(context_.network);
}

TEST_F(Yolo11Test, NetworksThatCannotBeServedAreRefusedAtLoad) {
  const std::function<void(ScriptedNetwork&)> changes[] = {
      [](auto& n) { n.counts.inputs = 0; },
      [](auto& n) { n.counts.inputs = 2; },
      [](auto& n) { n.counts.outputs = 0; },
      [](auto& n) { n.counts.outputs = UINT32_MAX; },
      [](auto& n) { n.counts.outputs = 3; },
      [](auto& n) {
        n.AddOutput({1, 4, 8, 8});
      },
      [](auto& n) { n.outputs[2].dim_count = 3; },
      [](auto& n) { n.outputs[2].dims[0] = 2; },
      [](auto& n) { n.outputs[2].dims[1] = 3; },
      [](auto& n) { n.outputs[3].dims[1] = 1; },
      [](auto& n) { n.outputs[3].dims[2] = 5; },
      [](auto& n) { n.outputs[4].dims[2] = n.outputs[5].dims[2] = 65; },
      [](auto& n) { n.outputs[5].format = TensorFormat::kNhwc; },
      [](auto& n) { --n.outputs[5].element_count; },
      [](auto& n) { n.inputs[0].dim_count = 3; },
      [](auto& n) { n.inputs[0].dims[3] = 1; },
      [](auto& n) { n.inputs[0].dims[0] = 2; },
      [](auto& n) { n.inputs[0].dims[1] = 0; },
      [](auto& n) { n.inputs[0].dims[2] = 0; },
      [](auto& n) { n.inputs[0].dims[1] = n.inputs[0].dims[2] = UINT32_MAX; },
      [](auto& n) { n.outputs[3].dim_count = 17; },
      [](auto& n) { n.outputs[3].dim_count = 0; },
      [](auto& n) { n.outputs[3].dims[1] = 0; },
      [](auto& n) { n.outputs[3].dims[1] = n.outputs[3].dims[2] = 1U << 31U; },
  };
  const ScriptedNetwork good = network_;
  for (const auto& change : changes) {
    network_ = good;
    change(network_);
    EXPECT_EQ(Load(), -1) << (&change - changes);
    EXPECT_EQ(log_.Lines().size(), static_cast<size_t>(&change - changes + 1));
    EXPECT_TRUE(script_.loaded.empty());
  }
  network_ = ScriptedNetwork::Classifying(64, 64, {1});
  EXPECT_EQ(Load({NetworkKind::kClassifying, 2}), -1);
  EXPECT_THAT(log_.Text(), EndsWith("refused: it has 1 values, at least 2 are needed\n"));
  network_ = good;
  network_.outputs[0].type = TensorType::kInt8;
  network_.outputs[0].quantisation = TensorQuantisation::kAffineAsymmetric;
  EXPECT_EQ(Load(), -1);
  EXPECT_THAT(log_.Text(), EndsWith("refused: it is quantised, only float networks are served\n"));
}

TEST_F(Yolo11Test, OutputsThatDoNotFitTheirAttributesAreAnErrorAndReleased) {
  const std::function<void(ScriptedNetwork&)> changes[] = {
      [](auto& n) { n.values[0].clear(); },
      [](auto& n) { n.values[4].pop_back(); },
      [](auto& n) { n.values[5].resize(1); },
  };
  const ScriptedNetwork good = network_;
  for (const auto& change : changes) {
    network_ = good;
    change(network_);
    ASSERT_EQ(Load(), 0) << (&change - changes);
    EXPECT_EQ(Find(), -1) << (&change - changes);
    EXPECT_EQ(found_.count, 0);
    EXPECT_THAT(printed_, HasSubstr("outputs of the network do not fit: "));
    EXPECT_TRUE(script_.outputs.empty());
  }
}

TEST_F(Yolo11Test, AClassifierGivesAllItsValues) {
  const NetworkUse use = {NetworkKind::kClassifying, 2};
  network_ = ScriptedNetwork::Classifying(64, 64, {0.25F, 0.75F});
  ASSERT_EQ(Load(use), 0);
  std::vector<float> values(5);
  EXPECT_EQ(inference_classifier(context_, picture_, values), 0);
  EXPECT_THAT(values, ElementsAre(0.25F, 0.75F));
  EXPECT_EQ(Find(), -1);  // it finds no boxes
  network_.values[0].pop_back();
  ASSERT_EQ(Load(use), 0);
  EXPECT_EQ(Printing([&] { return inference_classifier(context_, picture_, values); }), -1);
  EXPECT_TRUE(values.empty());
}

TEST_F(Yolo11Test, ABoardWithoutARuntimeSaysSo) {
  const RknnLibrary none({"librknnrt-none.so", "libm.so.6"});
  NpuContext context({thread_, &none});
  EXPECT_EQ(init_yolo11_model(kNetwork, {}, context), -1);
  EXPECT_THAT(log_.Text(), HasSubstr("no NPU runtime: librknnrt-none.so: cannot open"));
  EXPECT_THAT(log_.Text(), HasSubstr("undefined symbol: rknn_init"));
  const RknnLibrary second({"librknnrt-none.so", kNpuStandIn});
  EXPECT_NE(second.Api(), nullptr);
}

TEST_F(Yolo11Test, TheRuntimeIsNotCalledBeforeADriverIsThere) {
  const test::TempDir sys;
  const RknnLibrary library({kNpuStandIn}, NpuDriver{sys / "debug", sys / "drm", sys / "node"});
  NpuContext context({thread_, &library});
  script_.networks["test.fp.rknn"] = network_;
  const auto load = [&] { return init_yolo11_model(kNetwork, {{}, 2}, context); };
  sys.Write("drm/renderD128/device/uevent", "DRIVER=panfrost\n");
  sys.Write("drm/card1/device/uevent", "DRIVER=RKNPU\n");
  EXPECT_EQ(load(), -1);
  EXPECT_EQ(log_.Lines().size(), 1U);
  EXPECT_THAT(log_.Text(), HasSubstr("] no NPU driver: none of " + (sys / "debug").string()));
  EXPECT_EQ(script_.inits, 0);
  for (const char* place : {"debug/driver_version", "drm/renderD129/device/uevent", "node"}) {
    sys.Write(place, "MAJOR=226\nDRIVER=RKNPU\n");
    EXPECT_EQ(load(), 0) << place;
    std::filesystem::remove_all(sys / std::filesystem::path(place).begin()->string());
  }
}

TEST_F(Yolo11Test, LoadingLeavesThePriorityAsItWas) {
  script_.raise_priority = true;  // succeeds for root only, as it does in the daemon
  ASSERT_EQ(Load(), 0);
  int priority = -1;
  ASSERT_TRUE(thread_.Do([&] { priority = ::getpriority(PRIO_PROCESS, 0); }));
  EXPECT_EQ(priority, 0);
}

}  // namespace
}  // namespace varnel::service

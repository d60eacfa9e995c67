// A printer that looks at itself: pictures of known scenes go through camera, JPEG, networks and
// decisions, and come out as figures that can be worked out by hand.
#include <gmock/gmock.h>

#include "board/run_inside.h"
#include "board/scenes.h"
#include "board/served_board.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;

const json kBedLabels = {"item", "nozzle", "legend_text", "extrusion_line"};

BootOptions Npu(bool present) {
  BootOptions options = DaemonOptions();
  options.npu = present;
  return options;
}

class DetectionTest : public testing::Test {
 protected:
  void SetUp() override {
    served_.board.SetCameraFaults("rate 200");
    ASSERT_TRUE(served_.rpc.AwaitDaemon());
  }

  json Detect(const json& params) { return served_.rpc.Call("camera.detect_capture", params); }
  json Noodles(const char* status) {
    const json answer =
        Detect({{"labels", {"noodle"}}, {"detect_status", status}, {"z_position", 3}});
    return answer.value("/result/noodle"_json_pointer, answer);
  }
  json Items(const char* status) {
    const json answer = Detect({{"labels", kBedLabels}, {"detect_status", status}});
    return answer.value("/result/item"_json_pointer, answer);
  }
  void Show(const json& objects) { ShowScene(served_.board, {{"objects", objects}}); }
  [[nodiscard]] json NpuState() const {
    return json::parse(ReadFile(served_.board.Paths().Npu() / "state.json"));
  }
  [[nodiscard]] size_t Pictures(const std::string& directory) const {
    const fs::directory_iterator files(
        served_.board.HostPath("/userdata/.tmp_detect_result/" + directory));
    return static_cast<size_t>(std::distance(begin(files), end(files)));
  }

  ServedBoard served_{Npu(true)};
};

json Failure(int code, const char* message) {
  return {{"error", {{"code", -32000}, {"message", message}, {"data", {{"err_code", code}}}}}};
}

TEST_F(DetectionTest, APrintFromItsFirstPictureToItsLast) {
  const json old_noodle = {{"class", "noodle"}, {"box", {612, 312, 852, 552}}};
  const json lookalike = {{"class", "lookalike"}, {"box", {1200, 300, 1500, 500}}};
  const json new_noodle = {{"class", "noodle"}, {"box", {1212, 612, 1452, 852}}};
  Show(json::array({old_noodle}));
  EXPECT_EQ(Noodles("first"),
            json::parse(R"({"obj_cnts": 1, "obj_areas": 0.0277, "obj_probs": 0.9697,
                                              "obj_weighted_probs": 0.9697})"))
      << "57600 of 2073600 pixels";
  EXPECT_EQ(NpuState()["contexts"], 0) << "noodle networks leave after the first picture";
  EXPECT_EQ(Noodles("")["obj_cnts"], 0) << "it was there before the print";
  EXPECT_EQ(NpuState()["contexts"], 1);
  Show(json::array({old_noodle, lookalike}));
  EXPECT_EQ(Noodles("")["obj_cnts"], 0);
  EXPECT_EQ(Pictures("crop"), 4U) << "one of every find";
  const size_t positive = Pictures("positive/det");
  Show(json::array({old_noodle, new_noodle}));
  EXPECT_EQ(Noodles("")["obj_cnts"], 1);
  EXPECT_EQ(Pictures("positive/det"), positive + 1);
  const std::string results = "/userdata/.tmp_detect_result/";
  EXPECT_TRUE(served_.File(results + "org/printer_detect4.org.jpg") ==
              served_.File("/tmp/printer_detection.jpg"));
  EXPECT_TRUE(IsWholeJpeg(served_.File(results + "det/printer_detect4.det.jpg")));
  EXPECT_EQ(Items("")["obj_cnts"], 0) << "a noodle is no item";
  EXPECT_EQ(NpuState()["contexts"], 1) << "the other network has left";
  EXPECT_EQ(Items("last")["obj_cnts"], 0);
  EXPECT_EQ(Noodles("last")["obj_cnts"], 3) << "the reference went with the bed's last picture";
  const json state = NpuState();
  EXPECT_EQ(state["contexts"], 0);
  EXPECT_EQ(state["highest_contexts"], 2);
  EXPECT_EQ(state["outputs"], 0);
  EXPECT_THAT(served_.StopAndReadLog(),
              HasSubstr("detect status: status: last z: 3 name: noodle_algorithm his size: "));
}

TEST_F(DetectionTest, EachFailureIsOneErrorAndTheNextDetectionWorks) {
  const json noodle = {{"labels", {"noodle"}}};
  const json clean = {
      {"obj_areas", 0.0}, {"obj_cnts", 0}, {"obj_probs", 0.0}, {"obj_weighted_probs", 0.0}};
  Show(json::array());
  EXPECT_EQ(Noodles(""), clean);
  const json not_loaded = Failure(-1, "model load fail when detect");
  const fs::path faults = served_.board.Paths().Npu() / "faults";
  for (const char* call : {"rknn_inputs_set", "rknn_run", "rknn_outputs_get"}) {
    ReplaceFile(faults, "fail " + std::string(call) + " -2 1");
    EXPECT_EQ(Detect(noodle), Failure(-4, "model inference failed")) << call;
    EXPECT_EQ(Noodles(""), clean) << "loaded again after " << call;
  }
  for (const char* call : {"rknn_init", "rknn_query"}) {
    ReplaceFile(faults, "fail " + std::string(call) + " -1 1");
    EXPECT_EQ(Items(""), not_loaded) << call;
    EXPECT_EQ(NpuState()["contexts"], 0) << call;
  }
  const fs::path model = served_.board.HostPath("/etc/varnel/camera_service/model");
  const std::string network = ReadFile(model / "bed_check.fp.rknn");
  ReplaceFile(model / "bed_check.fp.rknn", "no network");
  EXPECT_EQ(Items(""), not_loaded);
  fs::remove(model / "bed_check.fp.rknn");
  EXPECT_EQ(Items(""), not_loaded);
  ReplaceFile(model / "bed_check.fp.rknn", network);
  EXPECT_EQ(Items(""), clean);
  EXPECT_EQ(Noodles(""), clean);
}

TEST(DetectionOnAFullDiskTest, FindsGoOnAndTheSpaceIsLeftToOthers) {
  ServedBoard served(Npu(true), [](const Board& board) {
    ASSERT_EQ(board
                  .Shell("mkdir -p /userdata/.tmp_detect_result && "
                         "mount -t tmpfs -o size=1m none /userdata/.tmp_detect_result")
                  .status,
              0);
  });
  ASSERT_TRUE(served.rpc.AwaitDaemon());
  ShowScene(served.board, {{"objects", {{{"class", "noodle"}, {"box", {612, 312, 852, 552}}}}}});
  const json answer = served.rpc.Call("camera.detect_capture", {{"labels", {"noodle"}}});
  EXPECT_EQ(answer.value("/result/noodle/obj_cnts"_json_pointer, 0), 1) << answer;
  EXPECT_EQ(served.board.Shell("find /userdata/.tmp_detect_result -type f").out, "");
  EXPECT_THAT(served.StopAndReadLog(),
              HasSubstr("Less than 64 MiB free in /userdata/.tmp_detect_result, nothing "
                        "is written there"));
}

TEST(DetectionWithoutNpuTest, OnlyDetectionsFail) {
  ServedBoard served(Npu(false));
  ASSERT_TRUE(served.rpc.AwaitDaemon());
  ShowScene(served.board, json::object());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(served.rpc.Call("camera.detect_capture", {{"labels", {"noodle"}}}),
              Failure(-1, "model load fail when detect"));
  }
  EXPECT_EQ(served.Photo("/userdata/p.jpg"), Success());
  EXPECT_THAT(served.StopAndReadLog(),
              HasSubstr("PrinterAnalysis: printer detector created with status: ready"));
}

}  // namespace
}  // namespace varnel::board

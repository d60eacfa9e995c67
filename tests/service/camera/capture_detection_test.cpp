#include "service/camera/capture_detection.h"

#include <gmock/gmock.h>

#include <thread>

#include "service/camera/counting_camera.h"
#include "support/fake_clock.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using testing::ElementsAre;

/// Answers what a test wants and notes what it was asked.
struct ScriptedAnalyser : PrintAnalyser {
  [[nodiscard]] bool Ready() const override { return ready; }
  [[nodiscard]] Answer Detect(const std::string& picture, const json& params) override {
    if (during) during();
    asked.push_back(picture + params.dump());
    return answer;
  }
  bool ready = true;
  Answer answer{0, "succeed", {{"err_code", 0}}};
  std::function<void()> during;
  std::vector<std::string> asked;
};

class CaptureDetectionTest : public testing::Test {
 protected:
  json Detect(const char* params) { return detection_.Detect(json::parse(params)); }

  test::FakeClock clock_{test::FakeClock::Waiting::kJump};
  ScriptedAnalyser analyser_;
  CountingCamera camera_;
  CaptureDetection detection_{camera_, &analyser_, "/tmp/p.jpg", clock_};
};

TEST_F(CaptureDetectionTest, TheAnalysersAnswerIsGivenOrItsReason) {
  EXPECT_EQ(Detect(R"({"labels":["noodle"]})"), json({{"err_code", 0}}));
  EXPECT_EQ(Detect("null"), json({{"err_code", 0}}));
  EXPECT_THAT(analyser_.asked, ElementsAre(R"(/tmp/p.jpg{"labels":["noodle"]})", "/tmp/p.jpgnull"));
  analyser_.answer = {-3, "picture is abnormal", {{"err_code", -3}}};
  EXPECT_EQ(Detect("{}"), json::parse(R"({"code":-32000,"message":"picture is abnormal",
                                          "data":{"err_code":-3}})"));
  camera_.status = hal_adapter::PhotoStatus::kCaptureFailed;
  EXPECT_EQ(Detect("{}"), json::parse(R"({"code":-32000,"message":"Take photo failed"})"));
  EXPECT_EQ(analyser_.asked.size(), 3U) << "there is no picture to look at";
}

TEST_F(CaptureDetectionTest, WithoutAnAnalyserNoPhotoIsTaken) {
  CaptureDetection none(camera_, nullptr, "", clock_);
  EXPECT_EQ(none.Detect({}), json::parse(R"({"code":-32000,"data":{"err_code":-7},
                                             "message":"printer analysis module not ready"})"));
}

TEST_F(CaptureDetectionTest, WrongTypesAreRefusedBeforeAPhotoIsTaken) {
  const char* const wrong[] = {"[]",
                               "7",
                               R"("noodle")",
                               R"({"labels":{}})",
                               R"({"labels":"noodle"})",
                               R"({"labels":["noodle",null]})",
                               R"({"labels":["labels"]})",
                               R"({"detect_status":null})",
                               R"({"detect_status":["first"]})",
                               R"({"z_position":true})",
                               R"({"z_position":2147483648})",
                               R"({"z_position":-1e300})",
                               R"({"labels":["noodle"],"noodle":null})",
                               R"({"labels":["noodle"],"noodle":{"threshold":"0.5"}})"};
  for (const char* params : wrong) EXPECT_EQ(Detect(params).value("code", 0), -32602) << params;
  EXPECT_EQ(camera_.photos, 0);
  const char* const right[] = {
      "{}", R"({"labels":null,"z_position":-2147483648})", R"({"labels":[],"z_position":0.5})",
      R"({"labels":["noodle"],"noodle":{"threshold":1e300},"item":7,"more":[]})"};
  for (const char* params : right) EXPECT_EQ(Detect(params).value("err_code", 1), 0) << params;
}

TEST_F(CaptureDetectionTest, OneRequestIsServedAtATimeAndNoneWaitsForEver) {
  bool asked_again = false;
  analyser_.during = [&] {
    if (std::exchange(asked_again, true)) return;
    // The clock's time passes while the second waits for the first.
    std::jthread second([&] { EXPECT_EQ(Detect("{}").value("message", ""), "Take photo failed"); });
  };
  EXPECT_EQ(Detect("{}"), json({{"err_code", 0}}));
  EXPECT_EQ(camera_.photos, 1);
  EXPECT_EQ(Detect("{}"), json({{"err_code", 0}}));
}

}  // namespace
}  // namespace varnel::service

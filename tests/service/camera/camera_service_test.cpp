#include "service/camera/camera_service.h"

#include <gmock/gmock.h>

#include <memory>

#include "service/camera/counting_camera.h"
#include "support/fake_mqtt_client.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

using nlohmann::json;

/// The service with a camera whose photos are counted.
class CameraServiceTest : public testing::Test {
 protected:
  CameraServiceTest() { EXPECT_EQ(comms_.InitLocal(), comms::CommsStatus::kOk); }

  json Take(const std::string& params) {
    return service_.ReqCallbackCameraServiceTakePhoto(json::parse(params));
  }

  test::LogCapture log_;
  test::TempDir dir_;
  const utils::ClientPathPolicy paths_{utils::ClientPathRules{.allowed = {dir_.Path()}}};
  comms::CommsManager comms_{[](const std::string& name, comms::Qos) {
    return std::make_shared<test::FakeMqttClient>(name);
  }};
  CountingCamera camera_;
  CameraService service_{comms_,
                         {.camera = &camera_,
                          .paths = &paths_,
                          .timelapse_paths = {.root = dir_ / "store", .web = dir_ / "web"}}};
};

json Error(int code, const char* message) {
  return {{"code", code}, {"message", message}};
}

TEST_F(CameraServiceTest, ParamsAreJudgedBeforeAnythingHappens) {
  const json invalid = Error(-32602, "Invalid params");
  for (const char* params :
       {"[]", "7", R"({"reason":null})", R"({"reason":["debug"]})",
        R"({"reason":"debug","filepath":null})", R"({"reason":"debug","timestamp":1.0})",
        R"({"reason":"debug","timestamp":true})",
        R"({"reason":"debug","timestamp":9223372036854775808})",
        R"({"reason":"debug","timestamp":9223372036854775807})"})
    EXPECT_EQ(Take(params), invalid) << params;
  EXPECT_EQ(Take("null"), Error(-32602, "Missing required param: reason"));
  for (const char* params :
       {R"({"reason":""})", R"({"reason":"Debug"})", R"({"reason":"fun\n","filepath":7})"})
    EXPECT_EQ(Take(params), Error(-32600, "Invalid Request")) << params;
  EXPECT_EQ(Take(R"({"reason":"printing","filepath":7})"), Error(-32600, "Invalid operation"));
  EXPECT_TRUE(log_.Has("CAMSRV", "Take a photo, reason is fun\\x0a"));
  EXPECT_EQ(service_.ReqCallbackCameraServiceStartTimelapse(json::array()), invalid);
  EXPECT_EQ(service_.ReqCallbackCameraServiceGetTimelapseInstance(json::array()), invalid);
  EXPECT_EQ(service_.ReqCallbackCameraServiceDeleteTimelapseInstance({{"date_index", 7}}), invalid);
  EXPECT_EQ(
      service_.ReqCallbackCameraServiceUploadTimelapseInstance({{"date_index", "1"}, {"type", 1}}),
      invalid);
  EXPECT_EQ(service_.ReqCallbackCameraServiceStartTimelapse(
                {{"mode", "classic"}, {"frame_rate", 30}, {"type", "continue"}}),
            Error(-32600, "start timelapse failed"));
  EXPECT_EQ(camera_.photos, 0);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "store"));
}

TEST_F(CameraServiceTest, StartFailsWhenANameIsTaken) {
  EXPECT_EQ(service_.Start(), comms::CommsStatus::kOk);
  EXPECT_TRUE(log_.Has("CAMSRV", "Camera service initialized via CommsManager."));
  EXPECT_NE(service_.Start(), comms::CommsStatus::kOk);
  EXPECT_EQ(service_.ReqCallbackCameraServiceGetStatus(7).at("interface_type"), "MIPI");
}

}  // namespace
}  // namespace varnel::service

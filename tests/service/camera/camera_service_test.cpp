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

TEST_F(CameraServiceTest, ParamsAreJudgedBeforeTheCameraIsTouched) {
  const struct {
    const char* params;
    json error;
  } cases[] = {
      {"null", Error(-32602, "Missing required param: reason")},
      {"{}", Error(-32602, "Missing required param: reason")},
      {"[]", Error(-32602, "Invalid params")},
      {"7", Error(-32602, "Invalid params")},
      {R"({"reason":null})", Error(-32602, "Invalid params")},
      {R"({"reason":["debug"]})", Error(-32602, "Invalid params")},
      {R"({"reason":"debug","filepath":null})", Error(-32602, "Invalid params")},
      {R"({"reason":"debug","filepath":7})", Error(-32602, "Invalid params")},
      {R"({"reason":"debug","timestamp":1.0})", Error(-32602, "Invalid params")},
      {R"({"reason":"debug","timestamp":true})", Error(-32602, "Invalid params")},
      {R"({"reason":"debug","timestamp":9223372036854775808})", Error(-32602, "Invalid params")},
      {R"({"reason":"debug","timestamp":9223372036854775807})", Error(-32602, "Invalid params")},
      {R"({"reason":""})", Error(-32600, "Invalid Request")},
      {R"({"reason":"Debug"})", Error(-32600, "Invalid Request")},
      {R"({"reason":"fun\n","filepath":7})", Error(-32600, "Invalid Request")},
      {R"({"reason":"printing","filepath":7})", Error(-32600, "Invalid operation")},
  };
  for (const auto& test : cases) EXPECT_EQ(Take(test.params), test.error) << test.params;
  EXPECT_EQ(camera_.photos, 0);
  EXPECT_TRUE(log_.Has("CAMSRV", "Take a photo, reason is fun\\x0a"));
}

TEST_F(CameraServiceTest, TimeLapseParamsAreJudgedBeforeAnythingHappens) {
  using Handler = json (CameraService::*)(const json&);
  const Handler start = &CameraService::ReqCallbackCameraServiceStartTimelapse;
  const Handler list = &CameraService::ReqCallbackCameraServiceGetTimelapseInstance;
  const Handler remove = &CameraService::ReqCallbackCameraServiceDeleteTimelapseInstance;
  const Handler upload = &CameraService::ReqCallbackCameraServiceUploadTimelapseInstance;
  const Handler monitor = &CameraService::ReqCallbackCameraServiceStartMonitor;
  const Handler end_monitor = &CameraService::ReqCallbackCameraServiceStopMonitor;
  const json missing = Error(-32602, "Missing required params: mode, frame_rate");
  const json invalid = Error(-32602, "Invalid params");
  const struct {
    Handler handler;
    const char* params;
    json answer;
  } cases[] = {
      {start, "null", missing},
      {start, R"({"mode":"classic"})", missing},
      {start, "[]", invalid},
      {start, R"({"mode":7,"frame_rate":30})", invalid},
      {start, R"({"mode":"classic","frame_rate":30,"type":7})", invalid},
      {start, R"({"mode":"classic","frame_rate":30,"type":"old"})",
       Error(-32600, "Unsupported type: old")},
      {start, R"({"mode":"classic","frame_rate":30,"type":"continue"})",
       Error(-32600, "start timelapse failed")},
      {&CameraService::ReqCallbackCameraServiceStopTimelapse, "null",
       Error(-32600, "Invalid operation")},
      {list, "[]", invalid},
      {remove, "null", Error(-32602, "Missing required param: date_index")},
      {remove, R"({"date_index":7})", invalid},
      {upload, R"({"date_index":"1"})", Error(-32602, "Missing required params: date_index, type")},
      {upload, R"({"date_index":"1","type":1})", invalid},
      {monitor, "{}", Error(-32602, "Missing required params: domain, interval")},
      {monitor, R"({"domain":"home","interval":1})", invalid},
      {monitor, R"({"domain":"wan","interval":1,"expect_pw":true})",
       Error(-32000, "Start monitor failed")},
      {end_monitor, "null", Error(-32602, "Missing required param: domain")},
      {end_monitor, R"({"domain":"lan"})", Error(-32000, "Stop monitor failed")},
  };
  for (const auto& test : cases)
    EXPECT_EQ((service_.*test.handler)(json::parse(test.params)), test.answer) << test.params;
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

#include "hal_adapter/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hal_adapter/fake_tables.h"
#include "support/log_capture.h"

namespace varnel::hal_adapter {
namespace {

class CameraTest : public testing::Test {
 protected:
  CameraTest() { test::Fake() = {}; }
  ~CameraTest() override { test::Fake() = {}; }

  /// Every operation of the camera, in one fixed order.
  std::vector<HalStatus> CallAll(Camera camera) {
    uint32_t count = 0;
    CameraImage image{};
    return {camera.GetCount(count), camera.UpdateInfo(),  camera.Open(nullptr),
            camera.Close(),         camera.SetConfig({}), camera.TakePhoto(image),
            camera.StartStream(),   camera.StopStream()};
  }

  test::LogCapture log_;
  const MultimediaHalInterface table_ = test::FakeMultimedia();
};

TEST_F(CameraTest, PassesItsCallsOn) {
  Camera camera(&table_, 3);
  uint32_t count = 0;
  CameraImage image{};
  const CameraConfig config = {640, 480, 4};
  EXPECT_EQ(camera.GetCount(count), 0);
  EXPECT_TRUE(log_.Has("CAM", "The number of camera is 1"));
  EXPECT_EQ(camera.UpdateInfo(), 0);
  EXPECT_TRUE(log_.Has(
      "CAM", "Camera 3 name: Fake camera 001, type: 2, max width and height is 1920x1080"));
  EXPECT_EQ(camera.Info().camera_id, 3u);
  EXPECT_EQ(camera.Open(&config) + camera.Open(nullptr) + camera.SetConfig(config) + camera.Close(),
            0);
  EXPECT_EQ(camera.TakePhoto(image), 0);
  EXPECT_EQ(image.size, test::Fake().frame.size());
  EXPECT_THAT(test::Fake().calls,
              testing::ElementsAre("open 3 set", "open 3", "config 3 640", "close 3"));
}

TEST_F(CameraTest, PassesAFailureUpWithItsReason) {
  test::Fake().status = -6;
  test::Fake().count_status = -1;
  EXPECT_THAT(CallAll(Camera(&table_, 2)), testing::ElementsAre(-1, -6, -6, -6, -6, -6, -7, -7));
  for (const char* text :
       {"Get camera count failed", "Get camera 2 info failed, reason is resource is busy",
        "Open camera 2 failed, reason is resource is busy",
        "Close camera 2 failed, reason is resource is busy",
        "Set camera 2 config failed, reason is resource is busy",
        "Camera 2 take photo failed, reason is resource is busy"}) {
    EXPECT_EQ(log_.Count("CAM", text), 1u) << text;
  }
  EXPECT_EQ(log_.Count("CAM", "Not support"), 2u);
}

TEST_F(CameraTest, NamesAnEmptySlot) {
  const MultimediaHalInterface empty{};
  EXPECT_THAT(CallAll(Camera(&empty, 0)), testing::Each(kHalUnsupported));
  for (const char* slot : {"get_camera_count", "get_camera_info", "open_camera", "close_camera",
                           "set_camera_config", "take_photo"}) {
    EXPECT_EQ(log_.Count("CAM", std::string(slot) + " interface has not been implemented"), 1u);
  }
}

TEST_F(CameraTest, IsNotReadyWithoutATable) {
  EXPECT_THAT(CallAll(Camera(nullptr, 0)), testing::Each(kHalInvalidState));
  EXPECT_EQ(log_.Count("CAM", "Camera is not ready"), 8u);
  EXPECT_FALSE(log_.Has("CAM", "Not support"));
}

}  // namespace
}  // namespace varnel::hal_adapter

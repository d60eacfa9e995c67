#include "platform/multimedia.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <string>

#include "hal_adapter/hal_registry.h"
#include "hal_interface/platform_init.h"
#include "platform/fake_v4l2.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::platform {
namespace {

using hal_adapter::CameraImage;
using hal_adapter::CameraInfo;

class MultimediaTest : public testing::Test {
 protected:
  static const hal_adapter::MultimediaHalInterface& Table() {
    return *hal_adapter::HalRegistry::Instance().multimedia.Get();
  }
  ~MultimediaTest() override {
    platform_multimedia_shutdown();
    EXPECT_EQ(driver_.open_descriptors, 0);
    EXPECT_EQ(driver_.mappings, 0);
  }

  /// Starts the area with a bus probe of this shell text.
  const hal_adapter::MultimediaHalInterface& Start(const char* probe) {
    MultimediaBoard board;
    board.i2cdetect = dir_.WriteScript("i2cdetect", probe);
    board.sensor_driver = dir_ / "driver";
    board.calls = &test::kFakeV4l2;
    EXPECT_EQ(multimedia_init(board), hal_adapter::HalStatus::kSuccess);
    return Table();
  }
  CameraInfo Selected(const char* probe) {
    CameraInfo info{};
    EXPECT_EQ(Start(probe).get_camera_info(0, &info), hal_adapter::HalStatus::kSuccess);
    return info;
  }
  uint32_t State() {
    uint32_t state = 99;
    EXPECT_EQ(Table().get_camera_state(0, &state), hal_adapter::HalStatus::kSuccess);
    return state;
  }

  test::LogCapture log_;
  test::TempDir dir_;
  test::FakeV4l2 driver_;
  CameraImage image_{};
};

TEST_F(MultimediaTest, TheBusProbeSelectsTheCamera) {
  const char* mipi_answers[] = {"echo 'UU'", "echo '--'; exit 1", "kill -9 $$"};
  for (const char* answer : mipi_answers) {
    EXPECT_STREQ(Selected(answer).name, "MIPI Camera") << answer;
    ASSERT_EQ(Table().open_camera(0, nullptr), hal_adapter::HalStatus::kSuccess);
    EXPECT_EQ(driver_.opened_path, "/dev/video11");
    EXPECT_EQ(driver_.format.fmt.pix.pixelformat, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(Table().close_camera(0), hal_adapter::HalStatus::kSuccess);
  }
  const CameraInfo usb = Selected(R"([ "$*" = "-y 4 0x37 0x37" ] && echo '--')");
  EXPECT_STREQ(usb.name, "USB Camera");
  EXPECT_EQ(usb.type, 0u);
  ASSERT_EQ(Table().open_camera(0, nullptr), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.opened_path, "/dev/video18");
  EXPECT_EQ(driver_.format.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
}

TEST_F(MultimediaTest, AMarkBeyondTheFirst1024BytesIsNotSeen) {
  EXPECT_STREQ(Selected("printf '%1024s' ''; echo UU").name, "USB Camera");
}

TEST_F(MultimediaTest, SlotsAnswerAndRefuseNull) {
  const auto& table = Start("echo UU");
  uint32_t count = 0;
  EXPECT_EQ(table.get_camera_count(&count), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(table.get_camera_count(nullptr), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(table.get_camera_info(3, nullptr), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_TRUE(log_.Has("IMMM", "Get camera 3 information"));
  EXPECT_EQ(table.get_camera_state(4, nullptr), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_TRUE(log_.Has("IMMM", "Get camera 4 state"));
  EXPECT_EQ(table.take_photo(0, nullptr), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(table.set_camera_config, nullptr);
  EXPECT_EQ(State(), 1u);
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kInvalidState)
      << "nobody opened it";
  EXPECT_EQ(table.open_camera(0, nullptr), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(State(), 2u);
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(table.close_camera(0), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kInvalidState)
      << "closed on purpose";
  platform_multimedia_shutdown();
  EXPECT_EQ(table.open_camera(0, nullptr), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_TRUE(
      log_.Has("IMMM", "The configuration has not been set and there is no default configuration"));
}

TEST_F(MultimediaTest, AnUnpluggedCameraIsOpenedAgainForTheNextPhoto) {
  const auto& table = Start("echo UU");
  const hal_adapter::CameraConfig config = {640, 480, hal_adapter::CAMERA_PIXEL_FORMAT_YUYV};
  ASSERT_EQ(table.open_camera(0, &config), hal_adapter::HalStatus::kSuccess);
  for (const unsigned long request :
       {VIDIOC_QBUF, VIDIOC_STREAMON, VIDIOC_DQBUF, VIDIOC_STREAMOFF}) {
    driver_.ioctl_errnos[request] = {ENODEV};
    driver_.close_errno = ENODEV;
    EXPECT_NE(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
    EXPECT_EQ(image_.size, 0u) << "the buffers are gone";
    EXPECT_EQ(image_.data, nullptr);
    EXPECT_EQ(State(), 1u);
    driver_.close_errno = 0;

    driver_.open_errno = ENOENT;
    EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kFailure) << "still unplugged";
    driver_.open_errno = 0;
    EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess) << "plugged in again";
    EXPECT_GT(image_.size, 0u);
    EXPECT_EQ(image_.width, 640u);
    EXPECT_EQ(driver_.open_descriptors, 1);
  }
}

TEST_F(MultimediaTest, ACameraWhoseBufferCouldNotBeMappedIsOpenedAgain) {
  const auto& table = Start("echo UU");
  driver_.mmap_errnos = {0, ENOMEM};
  ASSERT_EQ(table.open_camera(0, nullptr), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess)
      << "as the time-out of a frame";
  EXPECT_EQ(image_.size, 0u);
  EXPECT_EQ(State(), 1u);
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_GT(image_.size, 0u);
  EXPECT_EQ(driver_.opens, 2);
  driver_.wait_errnos = {-1};
  image_ = {};
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(State(), 2u) << "a late frame is no reason";
}

TEST_F(MultimediaTest, ACameraThatFailsOrStaysSilentIsOpenedAgain) {
  const auto& table = Start("echo UU");
  ASSERT_EQ(table.open_camera(0, nullptr), hal_adapter::HalStatus::kSuccess);
  for (const unsigned long request : {VIDIOC_STREAMON, VIDIOC_STREAMOFF}) {
    driver_.ioctl_errnos[request] = {EIO};
    EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kNoMemory);
    EXPECT_EQ(image_.size, 0u) << "whether that frame is new, nobody knows";
    EXPECT_EQ(State(), 1u);
  }
  for (int photo = 0; photo < 3; ++photo) {
    driver_.wait_errnos = {-1};
    image_ = {};
    EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
    EXPECT_EQ(State(), photo < 2 ? 2u : 1u);
  }
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_GT(image_.size, 0u);
}

TEST_F(MultimediaTest, ACameraPluggedInAfterTheStartWarmsUpAndServesPhotos) {
  const auto& table = Start("echo UU");
  driver_.open_errno = ENOENT;
  EXPECT_EQ(table.open_camera(0, nullptr), hal_adapter::HalStatus::kFailure);
  driver_.open_errno = 0;
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_GT(image_.size, 0u);
  EXPECT_EQ(driver_.calls[VIDIOC_STREAMON], 11);
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.calls[VIDIOC_STREAMON], 12);
}

TEST_F(MultimediaTest, ADriverThatComesLaterBringsItsCamera) {
  const auto& table = Start(R"(cat "${0%/*}/driver" 2>&1 || [ $? = 1 ])");
  ASSERT_EQ(table.open_camera(0, nullptr), hal_adapter::HalStatus::kSuccess);
  ASSERT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.opened_path, "/dev/video18");
  dir_.Write("driver", "UU");
  ASSERT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.opened_path, "/dev/video11");
  EXPECT_EQ(image_.pixel_format, hal_adapter::CAMERA_PIXEL_FORMAT_NV12);
  EXPECT_GT(image_.size, 0u);
  dir_.WriteScript("i2cdetect", "exit 1");
  std::filesystem::remove(dir_ / "driver");
  EXPECT_EQ(table.take_photo(0, &image_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.opens, 2) << "a bus that cannot be asked changes nothing";
}

}  // namespace
}  // namespace varnel::platform

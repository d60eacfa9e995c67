#include "platform/multimedia.h"

#include <gmock/gmock.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <string>

#include "hal_adapter/hal_registry.h"
#include "hal_interface/platform_init.h"
#include "platform/fake_v4l2.h"
#include "support/temp_dir.h"

namespace varnel::platform {
namespace {

using hal_adapter::CameraImage;
using hal_adapter::CameraInfo;
using hal_adapter::HalStatus;

constexpr HalStatus kOk = HalStatus::kSuccess;

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
    EXPECT_EQ(multimedia_init(board), kOk);
    return Table();
  }
  CameraInfo Selected(const char* probe) {
    CameraInfo info{};
    EXPECT_EQ(Start(probe).get_camera_info(0, &info), kOk);
    return info;
  }
  uint32_t State() {
    uint32_t state = 99;
    EXPECT_EQ(Table().get_camera_state(0, &state), kOk);
    return state;
  }

  test::TempDir dir_;
  test::FakeV4l2 driver_;
  CameraImage image_{};
};

TEST_F(MultimediaTest, TheBusProbeSelectsTheCamera) {
  for (const char* answer : {"echo 'UU'", "echo '--'; exit 1", "kill -9 $$"})
    EXPECT_STREQ(Selected(answer).name, "MIPI Camera") << answer;
  const CameraInfo usb = Selected(R"([ "$*" = "-y 4 0x37 0x37" ] && echo '--')");
  EXPECT_STREQ(usb.name, "USB Camera");
  EXPECT_EQ(usb.type, 0u);
  EXPECT_STREQ(Selected("printf '%1024s' ''; echo UU").name, "USB Camera");
}

TEST_F(MultimediaTest, SlotsAnswerAndRefuseNull) {
  const auto& table = Start("echo UU");
  uint32_t count = 0;
  EXPECT_EQ(table.get_camera_count(&count), kOk);
  EXPECT_EQ(count, 1u);
  const HalStatus refusals[] = {table.get_camera_count(nullptr), table.get_camera_info(3, nullptr),
                                table.get_camera_state(4, nullptr), table.take_photo(0, nullptr)};
  EXPECT_THAT(refusals, testing::Each(HalStatus::kInvalidParameter));
  EXPECT_EQ(table.set_camera_config, nullptr);
  EXPECT_EQ(State(), 1u);
  EXPECT_EQ(table.take_photo(0, &image_), HalStatus::kInvalidState) << "nobody opened it";
  EXPECT_EQ(table.open_camera(0, nullptr), kOk);
  EXPECT_EQ(State(), 2u);
  EXPECT_EQ(table.take_photo(0, &image_), kOk);
  EXPECT_EQ(table.close_camera(0), kOk);
  EXPECT_EQ(table.take_photo(0, &image_), HalStatus::kInvalidState) << "closed on purpose";
  platform_multimedia_shutdown();
  EXPECT_EQ(table.open_camera(0, nullptr), HalStatus::kInvalidParameter);
}

TEST_F(MultimediaTest, AnUnpluggedCameraIsOpenedAgainAsItWas) {
  const auto& table = Start("echo UU");
  const hal_adapter::CameraConfig config = {640, 480, hal_adapter::CAMERA_PIXEL_FORMAT_YUYV};
  ASSERT_EQ(table.open_camera(0, &config), kOk);
  driver_.ioctl_errnos[VIDIOC_QBUF] = {ENODEV};
  driver_.close_errno = ENODEV;
  EXPECT_NE(table.take_photo(0, &image_), kOk) << "though a frame came";
  EXPECT_EQ(image_.data, nullptr) << "the buffers are gone";
  driver_.close_errno = 0;
  EXPECT_EQ(table.take_photo(0, &image_), kOk);
  EXPECT_EQ(image_.width, 640u);
  EXPECT_EQ(driver_.open_descriptors, 1);
}

TEST_F(MultimediaTest, ACameraThatStaysSilentIsOpenedAgainAfterThreeFrames) {
  const auto& table = Start("echo UU");
  ASSERT_EQ(table.open_camera(0, nullptr), kOk);
  for (int photo = 0; photo < 3; ++photo) {
    driver_.wait_errnos = {-1};
    EXPECT_EQ(table.take_photo(0, &image_), kOk);
    EXPECT_EQ(State(), photo < 2 ? 2u : 1u);
  }
  EXPECT_EQ(table.take_photo(0, &image_), kOk);
  EXPECT_GT(image_.size, 0u);
}

TEST_F(MultimediaTest, ADriverThatComesLaterBringsItsCamera) {
  const auto& table = Start(R"(cat "${0%/*}/driver" 2>&1 || [ $? = 1 ])");
  ASSERT_EQ(table.open_camera(0, nullptr), kOk);
  ASSERT_EQ(table.take_photo(0, &image_), kOk);
  EXPECT_EQ(driver_.opened_path, "/dev/video18");
  dir_.Write("driver", "UU");
  ASSERT_EQ(table.take_photo(0, &image_), kOk);
  EXPECT_EQ(driver_.opened_path, "/dev/video11");
  EXPECT_EQ(image_.pixel_format, hal_adapter::CAMERA_PIXEL_FORMAT_NV12);
  EXPECT_GT(image_.size, 0u);
  dir_.WriteScript("i2cdetect", "exit 1");
  std::filesystem::remove(dir_ / "driver");
  EXPECT_EQ(table.take_photo(0, &image_), kOk);
  EXPECT_EQ(driver_.opens, 2) << "a bus that cannot be asked changes nothing";
}

}  // namespace
}  // namespace varnel::platform

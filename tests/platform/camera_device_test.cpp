#include "platform/camera_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <array>
#include <cerrno>

#include "platform/fake_v4l2.h"
#include "support/log_capture.h"

namespace varnel::platform {
namespace {

using hal_adapter::CameraConfig;
using hal_adapter::CameraImage;
using hal_adapter::CameraInfo;
using hal_adapter::HalStatus;
using test::FakeV4l2;
using test::Frame;
using testing::ElementsAre;

constexpr HalStatus kOk = HalStatus::kSuccess;
constexpr const char* kTag = "IMMMCAM";
constexpr CameraInfo kInfo = {5, 0, 0, "USB Camera", 1920, 1080, 30, {1, 1, 1}};
constexpr CameraConfig kNv12 = {1920, 1080, hal_adapter::CAMERA_PIXEL_FORMAT_NV12};

class CameraDeviceTest : public testing::Test {
 protected:
  CameraDeviceTest() { Init(); }
  // Whatever a test did, no descriptor and no mapping may be left behind.
  ~CameraDeviceTest() override {
    driver_.close_errno = 0;
    camera_device_discard(&camera_);
    EXPECT_EQ(driver_.open_descriptors, 0);
    EXPECT_EQ(driver_.mappings, 0);
  }

  void Init() {
    ASSERT_EQ(camera_device_init(&camera_, &kInfo, "/dev/video18", &test::kFakeV4l2), kOk);
  }
  HalStatus Open(const CameraConfig& config = kNv12) {
    return camera_device_open(&camera_, &config);
  }
  HalStatus Capture() {
    image_ = {};
    return camera_device_capture(&camera_, &image_);
  }
  void ExpectFullFrame() {
    EXPECT_EQ(Capture(), kOk);
    EXPECT_EQ(image_.size, FakeV4l2::kFrameSize);
  }

  test::LogCapture log_;
  FakeV4l2 driver_;
  CameraInstance camera_;
  CameraImage image_{};
};

TEST_F(CameraDeviceTest, FramesOfAnotherKindThanAskedAreRefused) {
  v4l2_pix_format asked{};
  asked.width = asked.bytesperline = 1920;
  asked.height = 1080;
  asked.pixelformat = V4L2_PIX_FMT_NV12;
  std::array<v4l2_pix_format, 5> granted;
  granted.fill(asked);
  granted[1].width = 1280;
  granted[2].height = 1088;
  granted[3].pixelformat = V4L2_PIX_FMT_RGB24;
  granted[4].bytesperline = 2048;
  for (size_t i = 0; i < granted.size(); ++i) {
    driver_.granted = granted[i];
    ASSERT_EQ(Open(), kOk);
    EXPECT_EQ(Capture(), i == 0 ? kOk : HalStatus::kNoMemory) << i;
    ASSERT_EQ(camera_device_close(&camera_), kOk);
  }
  // Some drivers tell longer lines than their frames have.
  driver_.granted->width = 8;
  driver_.granted->height = 4;
  const hal_adapter::CameraConfig small = {8, 4, hal_adapter::CAMERA_PIXEL_FORMAT_NV12};
  ASSERT_EQ(camera_device_open(&camera_, &small), kOk);
  driver_.frames = {Frame(0, 48), Frame(0, 64)};
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 48u);
  EXPECT_EQ(Capture(), HalStatus::kNoMemory);
  EXPECT_EQ(image_.size, 0u) << "nothing to be converted";
}

TEST_F(CameraDeviceTest, RefusesWhatItsStateDoesNotAllow) {
  EXPECT_EQ(camera_device_destroy(&camera_), HalStatus::kBusy) << "the descriptor is 0";
  EXPECT_EQ(Capture(), HalStatus::kInvalidState);
  EXPECT_EQ(camera_device_close(&camera_), HalStatus::kInvalidState);
  ASSERT_EQ(Open(), kOk);
  EXPECT_EQ(Open(), HalStatus::kUnsupported);
  ASSERT_EQ(camera_device_close(&camera_), kOk);
  EXPECT_EQ(camera_device_close(&camera_), HalStatus::kInvalidState);
  EXPECT_EQ(camera_device_destroy(&camera_), kOk);
  EXPECT_EQ(camera_.state, hal_adapter::CAMERA_STATE_NOT_INITIALISED);
}

TEST_F(CameraDeviceTest, NeverReadsBeyondTheMappingOrFromABrokenFrame) {
  ASSERT_EQ(Open(), kOk);
  driver_.frames = {Frame(0, FakeV4l2::kFrameSize + 1)};
  ExpectFullFrame();
  const v4l2_buffer faulty = Frame(0, FakeV4l2::kFrameSize, V4L2_BUF_FLAG_ERROR);
  driver_.queued.clear();
  driver_.frames = {faulty, Frame(2, 60)};
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 60u) << "the next one";
  EXPECT_THAT(driver_.queued, ElementsAre(0, 1, 2, 0, 2));
  driver_.frames.assign(10'000, faulty);
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_EQ(log_.Count(kTag, "Only faulty frames came"), 1u);
  driver_.frames = {Frame(3, 64), Frame(UINT32_MAX, 64), Frame(1, 64)};
  ExpectFullFrame();
  EXPECT_EQ(log_.Count(kTag, "v4l2 buffer index out of range"), 2u);
}

TEST_F(CameraDeviceTest, ADriverThatNeverHandsAFrameOutEndsAtTheDeadline) {
  ASSERT_EQ(Open(), kOk);
  driver_.ioctl_errnos[VIDIOC_DQBUF] = {EAGAIN, EINTR, EINTR, EAGAIN};
  driver_.wait_errnos = {EINTR, EINTR};
  ExpectFullFrame();
  driver_.always_again = true;
  int64_t start = driver_.now_ms;
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_LE(driver_.now_ms - start, 2100);
  EXPECT_LE(driver_.calls[VIDIOC_DQBUF], 120) << "no processor time for asking";
  driver_.always_again = false;
  driver_.frames.assign(10'000, Frame(9, 64));
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 0u);
  start = driver_.now_ms;
  driver_.wait_errnos = {-1};
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_GE(driver_.now_ms - start, 2000);
  driver_.wait_errnos = {EBADF};
  EXPECT_EQ(Capture(), kOk);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_FALSE(driver_.streaming);
}

TEST_F(CameraDeviceTest, ABufferThatCannotBeQueuedIsReportedAndTheNextOneServes) {
  ASSERT_EQ(Open(), kOk);
  driver_.ioctl_errnos[VIDIOC_QBUF] = {EINVAL, EIO, 0, EIO};
  ExpectFullFrame();
  EXPECT_EQ(log_.Count(kTag, "VIDIOC_QBUF failed"), 2u);
  EXPECT_EQ(log_.Count(kTag, "VIDIOC_QBUF"), 1u);
}

}  // namespace
}  // namespace varnel::platform

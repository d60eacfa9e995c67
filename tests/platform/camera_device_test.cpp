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
using test::FakeV4l2;
using test::Frame;
using testing::ElementsAre;

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
    ASSERT_EQ(camera_device_init(&camera_, &kInfo, "/dev/video18", &test::kFakeV4l2),
              hal_adapter::HalStatus::kSuccess);
  }
  auto Open(const CameraConfig& config = kNv12) { return camera_device_open(&camera_, &config); }
  auto Capture() {
    image_ = {};
    return camera_device_capture(&camera_, &image_);
  }
  void ExpectFullFrame() {
    EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
    EXPECT_EQ(image_.size, FakeV4l2::kFrameSize);
  }

  test::LogCapture log_;
  FakeV4l2 driver_;
  CameraInstance camera_;
  CameraImage image_{};
};

TEST_F(CameraDeviceTest, TakesAFrameFromTheDriversMemory) {
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.opened_path, "/dev/video18");
  EXPECT_EQ(driver_.format.fmt.pix.width, 1920u);
  EXPECT_EQ(driver_.format.fmt.pix.height, 1080u);
  EXPECT_EQ(driver_.format.fmt.pix.pixelformat, V4L2_PIX_FMT_NV12);
  driver_.frames = {Frame(2, 60)};
  ASSERT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.data, driver_.memory[2].data());
  EXPECT_EQ(image_.size, 60u);
  EXPECT_EQ(image_.timestamp_ms, 12'345u);
  EXPECT_EQ(image_.width, 1920u);
  EXPECT_EQ(image_.height, 1080u);
  EXPECT_EQ(image_.pixel_format, hal_adapter::CAMERA_PIXEL_FORMAT_NV12);
  EXPECT_EQ(image_.camera_id, 5u);
  EXPECT_THAT(driver_.queued, ElementsAre(0, 1, 2, 2));
  EXPECT_FALSE(driver_.streaming);
}

TEST_F(CameraDeviceTest, YuyvAndUnknownFormatsOpenTheDevice) {
  ASSERT_EQ(Open({640, 480, hal_adapter::CAMERA_PIXEL_FORMAT_YUYV}),
            hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.format.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
  ASSERT_EQ(camera_device_close(&camera_), hal_adapter::HalStatus::kSuccess);
  ASSERT_EQ(Open({640, 480, 5}), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(driver_.format.fmt.pix.pixelformat, 0u);
  EXPECT_THAT(log_.Text(),
              testing::ContainsRegex("W \\[IMMMCAM:[0-9]+\\] No format has been set."));
}

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
    ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
    const size_t lines = log_.Lines().size();
    EXPECT_EQ(Capture(),
              i == 0 ? hal_adapter::HalStatus::kSuccess : hal_adapter::HalStatus::kNoMemory)
        << i;
    EXPECT_EQ(log_.Lines().size() - lines, i == 0 ? 0u : 1u);
    ASSERT_EQ(camera_device_close(&camera_), hal_adapter::HalStatus::kSuccess);
  }
  // Some drivers tell longer lines than their frames have.
  driver_.granted->width = 8;
  driver_.granted->height = 4;
  const hal_adapter::CameraConfig small = {8, 4, hal_adapter::CAMERA_PIXEL_FORMAT_NV12};
  ASSERT_EQ(camera_device_open(&camera_, &small), hal_adapter::HalStatus::kSuccess);
  driver_.frames = {Frame(0, 48), Frame(0, 64)};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 48u);
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kNoMemory);
  EXPECT_EQ(image_.size, 0u) << "nothing to be converted";
}

TEST_F(CameraDeviceTest, RefusesWhatItsStateDoesNotAllow) {
  EXPECT_EQ(camera_device_destroy(&camera_), hal_adapter::HalStatus::kBusy)
      << "the descriptor is 0";
  EXPECT_TRUE(log_.Has(kTag, "The device file has not been closed yet"));
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kInvalidState);
  EXPECT_TRUE(log_.Has(kTag, "The state of camera is not opened"));
  EXPECT_EQ(camera_device_close(&camera_), hal_adapter::HalStatus::kInvalidState);
  EXPECT_TRUE(log_.Has(kTag, "The state of camera is closed"));
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kUnsupported);
  EXPECT_TRUE(log_.Has(kTag, "The instance has not been initialized"));
  ASSERT_EQ(camera_device_close(&camera_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(camera_device_close(&camera_), hal_adapter::HalStatus::kInvalidState);
  EXPECT_EQ(camera_device_destroy(&camera_), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(camera_.state, hal_adapter::CAMERA_STATE_NOT_INITIALISED);
  camera_.info = &kInfo;
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kUnsupported);
  camera_.state = hal_adapter::CAMERA_STATE_INITIALISED;
  camera_.fd = 9;
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kInvalidState);
  EXPECT_TRUE(log_.Has(kTag, "The camera device has been opened"));
}

TEST_F(CameraDeviceTest, RefusesNullArguments) {
  const hal_adapter::HalStatus refusals[] = {camera_device_init(nullptr, &kInfo, "x"),
                                             camera_device_init(&camera_, nullptr, "x"),
                                             camera_device_init(&camera_, &kInfo, nullptr),
                                             camera_device_open(nullptr, &kNv12),
                                             camera_device_open(&camera_, nullptr),
                                             camera_device_capture(nullptr, &image_),
                                             camera_device_capture(&camera_, nullptr),
                                             camera_device_close(nullptr),
                                             camera_device_destroy(nullptr)};
  EXPECT_THAT(refusals, testing::Each(hal_adapter::HalStatus::kInvalidParameter));
}

TEST_F(CameraDeviceTest, AFailedOpenLeavesNothingBehindAndCanBeRepeated) {
  for (const auto& [request, text] : {std::pair(VIDIOC_QUERYCAP, "VIDIOC_QUERYCAP failed"),
                                      {VIDIOC_S_FMT, "VIDIOC_S_FMT failed"},
                                      {VIDIOC_REQBUFS, "VIDIOC_REQBUFS failed"}}) {
    driver_.ioctl_errnos[request] = {EIO};
    EXPECT_EQ(Open(), hal_adapter::HalStatus::kNoMemory) << text;
    EXPECT_EQ(camera_.fd, -1);
    EXPECT_EQ(driver_.open_descriptors, 0);
    EXPECT_EQ(camera_.state, hal_adapter::CAMERA_STATE_INITIALISED);
    EXPECT_EQ(log_.Count(kTag, text), 1u);
  }
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
}

TEST_F(CameraDeviceTest, RefusesDevicesThatCannotServe) {
  driver_.open_errno = ENOENT;
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kFailure);
  EXPECT_TRUE(log_.Has(kTag, "Open device /dev/video18 failed, errno = 2"));
  driver_.open_errno = 0;
  driver_.capabilities = V4L2_CAP_STREAMING;
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log_.Has(kTag, "Device does not support video capture"));
  driver_.capabilities = V4L2_CAP_VIDEO_CAPTURE;
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log_.Has(kTag, "Device does not support streaming"));
  driver_.capabilities |= V4L2_CAP_STREAMING;
  driver_.granted_buffers = 2;
  EXPECT_EQ(Open(), hal_adapter::HalStatus::kNoResource);
  EXPECT_TRUE(log_.Has(kTag, "Insufficient buffer memory"));
  EXPECT_EQ(driver_.opens, 3);
  EXPECT_EQ(driver_.open_descriptors, 0);
}

TEST_F(CameraDeviceTest, FramesOfUnmappedBuffersAreEmpty) {
  driver_.ioctl_errnos[VIDIOC_QUERYBUF] = {EINVAL};
  driver_.mmap_errnos = {ENOMEM};
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(log_.Count(kTag, "VIDIOC_QUERYBUF failed"), 1u);
  EXPECT_EQ(log_.Count(kTag, "mmap failed"), 1u);
  for (const uint32_t unmapped : {0u, 1u}) {
    driver_.frames = {Frame(unmapped, 64)};
    EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
    EXPECT_EQ(image_.size, 0u);
    EXPECT_EQ(image_.data, nullptr);
  }
  driver_.frames = {Frame(2, 64)};
  ExpectFullFrame();
}

TEST_F(CameraDeviceTest, NeverReadsBeyondTheMappingOrFromABrokenFrame) {
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  driver_.frames = {Frame(0, FakeV4l2::kFrameSize + 1)};
  ExpectFullFrame();
  const v4l2_buffer faulty = Frame(0, FakeV4l2::kFrameSize, V4L2_BUF_FLAG_ERROR);
  driver_.queued.clear();
  driver_.frames = {faulty, Frame(2, 60)};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 60u) << "the next one";
  EXPECT_THAT(driver_.queued, ElementsAre(0, 1, 2, 0, 2));
  driver_.frames.assign(10'000, faulty);
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_EQ(log_.Count(kTag, "Only faulty frames came"), 1u);
  driver_.frames = {Frame(3, 64), Frame(UINT32_MAX, 64), Frame(1, 64)};
  ExpectFullFrame();
  EXPECT_EQ(log_.Count(kTag, "v4l2 buffer index out of range"), 2u);
}

TEST_F(CameraDeviceTest, InterruptedCallsAreRepeated) {
  for (const unsigned long request :
       {VIDIOC_QUERYCAP, VIDIOC_S_FMT, VIDIOC_REQBUFS, VIDIOC_QUERYBUF, VIDIOC_QBUF,
        VIDIOC_STREAMON, VIDIOC_DQBUF, VIDIOC_STREAMOFF}) {
    driver_.ioctl_errnos[request] = {EINTR, EINTR};
  }
  driver_.wait_errnos = {EINTR, EINTR};
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  ExpectFullFrame();
}

TEST_F(CameraDeviceTest, ACaptureWithoutAFrameLeavesTheImageAlone) {
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  driver_.wait_errnos = {-1};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_TRUE(log_.Has(kTag, "select timeout"));
  EXPECT_GE(driver_.now_ms, 2000);
  driver_.wait_errnos = {EBADF};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_TRUE(log_.Has(kTag, "select error"));
  EXPECT_FALSE(driver_.streaming);
  ExpectFullFrame();
}

TEST_F(CameraDeviceTest, ADriverThatNeverHandsAFrameOutEndsAtTheDeadline) {
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  driver_.ioctl_errnos[VIDIOC_DQBUF] = {EAGAIN, EAGAIN};
  ExpectFullFrame();
  driver_.always_again = true;
  const int64_t start = driver_.now_ms;
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_LE(driver_.now_ms - start, 2100);
  EXPECT_LE(driver_.calls[VIDIOC_DQBUF], 220) << "no processor time for asking";
  driver_.always_again = false;
  driver_.frames.assign(10'000, Frame(9, 64));
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 0u);
}

TEST_F(CameraDeviceTest, EachFailingCallOfACaptureIsReported) {
  ASSERT_EQ(Open(), hal_adapter::HalStatus::kSuccess);
  driver_.ioctl_errnos[VIDIOC_QBUF] = {EINVAL, EIO, 0, EIO};
  ExpectFullFrame();
  EXPECT_EQ(log_.Count(kTag, "VIDIOC_QBUF failed"), 2u);
  EXPECT_EQ(log_.Count(kTag, "VIDIOC_QBUF"), 1u);
  driver_.ioctl_errnos[VIDIOC_STREAMON] = {EIO};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log_.Has(kTag, "VIDIOC_STREAMON failed"));
  driver_.ioctl_errnos[VIDIOC_DQBUF] = {EIO};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(image_.size, 0u);
  EXPECT_TRUE(log_.Has(kTag, "VIDIOC_DQBUF"));
  driver_.ioctl_errnos[VIDIOC_STREAMOFF] = {EIO};
  EXPECT_EQ(Capture(), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log_.Has(kTag, "VIDIOC_STREAMOFF failed"));
  EXPECT_FALSE(camera_.device_lost);
}

}  // namespace
}  // namespace varnel::platform

#include "virtual_board/camera/camera_model.h"

#include <linux/videodev2.h>

namespace varnel::board {

namespace {

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;
constexpr size_t kPixels = size_t{kWidth} * kHeight;

constexpr FrameFormat kNv12 = {V4L2_PIX_FMT_NV12, "Y/CbCr 4:2:0", ".nv12",        kWidth,
                               kHeight,           kWidth,         kPixels * 3 / 2};
constexpr FrameFormat kYuyv = {V4L2_PIX_FMT_YUYV, "YUYV 4:2:2", ".yuyv",    kWidth,
                               kHeight,           kWidth * 2,   kPixels * 2};

// Without a packed format beside it ("formats 1") libv4l2 takes NV12 for one that is always to be
// converted, and hands out RGB to programs that do not switch that off.
constexpr FrameFormat kMipiFormats[] = {kNv12, kYuyv};
constexpr FrameFormat kUsbFormats[] = {kYuyv};

constexpr CameraModel kModels[] = {
    {"/dev/video11", "Virtual MIPI camera", kMipiFormats},
    {"/dev/video18", "Virtual USB camera", kUsbFormats},
};

}  // namespace

const CameraModel* FindCameraModel(std::string_view device_path) {
  for (const CameraModel& model : kModels) {
    if (model.device_path == device_path) return &model;
  }
  return nullptr;
}

}  // namespace varnel::board

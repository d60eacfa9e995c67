#include "virtual_board/camera/camera_model.h"

#include <linux/videodev2.h>

namespace varnel::board {

namespace {

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;
constexpr size_t kPixels = size_t{kWidth} * kHeight;

constexpr CameraModel kModels[] = {
    {"/dev/video11", "Virtual MIPI camera", ".nv12", V4L2_PIX_FMT_NV12, kWidth, kWidth, kHeight,
     kPixels * 3 / 2},
    {"/dev/video18", "Virtual USB camera", ".yuyv", V4L2_PIX_FMT_YUYV, kWidth * 2, kWidth, kHeight,
     kPixels * 2},
};

}  // namespace

const CameraModel* FindCameraModel(std::string_view device_path) {
  for (const CameraModel& model : kModels) {
    if (model.device_path == device_path) return &model;
  }
  return nullptr;
}

}  // namespace varnel::board

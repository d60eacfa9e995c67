#include "hal_adapter/camera.h"

#include <cstring>
#include <string_view>

#include "utils/log.h"

namespace varnel::hal_adapter {
namespace {

constexpr const char* kTag = "CAM";

std::string_view NameOf(const CameraInfo& info) {
  return {info.name, strnlen(info.name, sizeof(info.name))};
}

}  // namespace

Camera::Camera(const MultimediaHalInterface* table, uint32_t id)
    : table_(table), ready_(table != nullptr), id_(id) {}

template <class Slot>
HalStatus Camera::Check(Slot MultimediaHalInterface::*slot, const char* empty_text) const {
  if (!ready_) {
    VLOG_ERROR(kTag, "Camera is not ready");
    return HalStatus::kInvalidState;
  }
  if (table_->*slot == nullptr) {
    VLOG_ERROR(kTag, "{}", empty_text);
    return HalStatus::kUnsupported;
  }
  return HalStatus::kSuccess;
}

HalStatus Camera::GetCount(uint32_t& count) const {
  HalStatus status = Check(&MultimediaHalInterface::get_camera_count,
                           "get_camera_count interface has not been implemented");
  if (status != HalStatus::kSuccess) return status;
  status = table_->get_camera_count(&count);
  if (status == HalStatus::kSuccess) {
    VLOG_INFO(kTag, "The number of camera is {}", count);
  } else {
    VLOG_ERROR(kTag, "Get camera count failed");
  }
  return status;
}

HalStatus Camera::UpdateInfo() {
  HalStatus status = Check(&MultimediaHalInterface::get_camera_info,
                           "get_camera_info interface has not been implemented");
  if (status != HalStatus::kSuccess) return status;
  status = table_->get_camera_info(id_, &info_);
  if (status == HalStatus::kSuccess) {
    VLOG_INFO(kTag, "Camera {} name: {}, type: {}, max width and height is {}x{}", id_,
              NameOf(info_), info_.type, info_.max_width, info_.max_height);
  } else {
    VLOG_ERROR(kTag, "Get camera {} info failed, reason is {}", id_, hal_error_string(status));
  }
  return status;
}

HalStatus Camera::Open(const CameraConfig* config) const {
  HalStatus status =
      Check(&MultimediaHalInterface::open_camera, "open_camera interface has not been implemented");
  if (status != HalStatus::kSuccess) return status;
  status = table_->open_camera(id_, config);
  if (status != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Open camera {} failed, reason is {}", id_, hal_error_string(status));
  }
  return status;
}

HalStatus Camera::Close() const {
  HalStatus status = Check(&MultimediaHalInterface::close_camera,
                           "close_camera interface has not been implemented");
  if (status != HalStatus::kSuccess) return status;
  status = table_->close_camera(id_);
  if (status != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Close camera {} failed, reason is {}", id_, hal_error_string(status));
  }
  return status;
}

HalStatus Camera::SetConfig(const CameraConfig& config) const {
  HalStatus status = Check(&MultimediaHalInterface::set_camera_config,
                           "set_camera_config interface has not been implemented");
  if (status != HalStatus::kSuccess) return status;
  status = table_->set_camera_config(id_, &config);
  if (status != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Set camera {} config failed, reason is {}", id_, hal_error_string(status));
  }
  return status;
}

HalStatus Camera::TakePhoto(CameraImage& image) const {
  image = {};
  HalStatus status =
      Check(&MultimediaHalInterface::take_photo, "take_photo interface has not been implemented");
  if (status != HalStatus::kSuccess) return status;
  status = table_->take_photo(id_, &image);
  if (status != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Camera {} take photo failed, reason is {}", id_, hal_error_string(status));
  }
  return status;
}

HalStatus Camera::Unsupported() const {
  if (!ready_) {
    VLOG_ERROR(kTag, "Camera is not ready");
    return HalStatus::kInvalidState;
  }
  VLOG_WARN(kTag, "Not support");
  return HalStatus::kUnsupported;
}

}  // namespace varnel::hal_adapter

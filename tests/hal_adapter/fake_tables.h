#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "hal_adapter/hal_registry.h"

namespace varnel::test {

/// What the fake slots answer and saw; slots are plain functions, so there is one of it.
struct FakePlatform {
  hal_adapter::HalStatus status =
      hal_adapter::HalStatus::kSuccess;  ///< of every slot but the counting one
  hal_adapter::HalStatus count_status = hal_adapter::HalStatus::kSuccess;
  uint32_t cameras = 1;
  uint32_t broken_camera = UINT32_MAX;  ///< its information cannot be read
  uint32_t failing_path = UINT32_MAX;
  hal_adapter::DeviceInfo device{};
  std::vector<uint8_t> frame = std::vector<uint8_t>(16, 'x');
  uint32_t pixel_format = hal_adapter::CAMERA_PIXEL_FORMAT_NV12;
  std::vector<std::string> calls;

  static FakePlatform& Instance() {
    static FakePlatform platform;
    return platform;
  }
  hal_adapter::HalStatus Called(const std::string& call) {
    calls.push_back(call);
    return status;
  }
};

inline FakePlatform& Fake() {
  return FakePlatform::Instance();
}

inline hal_adapter::HalStatus FakeCameraInfo(uint32_t id, hal_adapter::CameraInfo* info) {
  *info = {id, 0, 2, "Fake camera 001", 1920, 1080, 30, {1, 1, 1}};
  return id == Fake().broken_camera ? hal_adapter::HalStatus::kHardwareError : Fake().status;
}

inline hal_adapter::HalStatus FakePhoto(uint32_t id, hal_adapter::CameraImage* image) {
  const std::vector<uint8_t>& frame = Fake().frame;
  *image = {frame.data(), frame.size(), 1234, 1920, 1080, Fake().pixel_format, id};
  return Fake().status;
}

inline hal_adapter::HalStatus FakePath(uint32_t type, char* out, size_t size) {
  std::strncpy(out, ("/dir" + std::to_string(type)).c_str(), size);
  return type == Fake().failing_path ? hal_adapter::HalStatus::kNoMemory
                                     : hal_adapter::HalStatus::kSuccess;
}

inline hal_adapter::MultimediaHalInterface FakeMultimedia() {
  return {
      [](uint32_t* count) {
        *count = Fake().cameras;
        return Fake().count_status;
      },
      FakeCameraInfo,
      nullptr,
      [](uint32_t id, const hal_adapter::CameraConfig* config) {
        return Fake().Called("open " + std::to_string(id) + (config != nullptr ? " set" : ""));
      },
      [](uint32_t id) { return Fake().Called("close " + std::to_string(id)); },
      [](uint32_t id, const hal_adapter::CameraConfig* config) {
        return Fake().Called("config " + std::to_string(id) + " " + std::to_string(config->width));
      },
      nullptr,
      FakePhoto,
  };
}

inline hal_adapter::SystemHalInterface FakeSystem() {
  return {
      [](hal_adapter::DeviceInfo* info) {
        *info = Fake().device;
        return Fake().status;
      },
      nullptr,
      [](uint32_t target, const char* package) {
        return Fake().Called("upgrade " + std::to_string(target) + " " + package);
      },
      [](uint32_t type, const char* out_dir) {
        return Fake().Called("collect " + std::to_string(type) + " " + out_dir);
      },
      [] { return Fake().Called("prepare reboot"); },
      nullptr,
  };
}

}  // namespace varnel::test

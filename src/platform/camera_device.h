#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "hal_interface/hal_records.h"
#include "hal_interface/hal_status.h"
#include "platform/v4l2_calls.h"

namespace varnel::platform {

inline constexpr uint32_t kCameraBufferCount = 3;

struct CameraBuffer {
  void* address = nullptr;  ///< null: not mapped
  size_t length = 0;
};

/// One V4L2 camera, driven by the camera_device_* functions only. Not thread-safe.
struct CameraInstance {
  const hal_adapter::CameraInfo* info = nullptr;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t pixel_format = 0;
  v4l2_pix_format granted{};  ///< what the driver gives instead
  bool padded = false;        ///< lines of a frame were longer than asked since the last open
  uint32_t state = hal_adapter::CAMERA_STATE_NOT_INITIALISED;
  std::string device_path;
  int fd = 0;  ///< stays 0 until the first open, -1 after a close
  CameraBuffer buffers[kCameraBufferCount];
  /// The device answered ENODEV since it was opened: it is gone and must be opened anew.
  bool device_lost = false;
  const V4l2Calls* calls = &kLibV4l2Calls;
};

/// `info` and `calls` must outlive the instance.
hal_adapter::HalStatus camera_device_init(CameraInstance* inst, const hal_adapter::CameraInfo* info,
                                          const char* device_path,
                                          const V4l2Calls* calls = &kLibV4l2Calls);

/// A failure leaves the device closed and the instance ready for another open.
hal_adapter::HalStatus camera_device_open(CameraInstance* inst,
                                          const hal_adapter::CameraConfig* config);

/// A driver answers with what comes nearest instead of failing, so an open device may give frames
/// of another size or format. Longer lines show in the frames only: some drivers round the line up
/// in what they say and give frames without padding.
bool camera_device_gives_what_was_asked(const CameraInstance& inst);

/// One frame; streaming runs only meanwhile. 0 with an untouched image when no whole frame came in
/// time; -3 from a driver that gives other frames than those the instance was opened for.
hal_adapter::HalStatus camera_device_capture(CameraInstance* inst, hal_adapter::CameraImage* image);

hal_adapter::HalStatus camera_device_close(CameraInstance* inst);

/// Closes a device that is gone, whatever its close answers: the instance can be opened again
/// afterwards.
void camera_device_discard(CameraInstance* inst);

/// Only after a close.
hal_adapter::HalStatus camera_device_destroy(CameraInstance* inst);

}  // namespace varnel::platform

#include "platform/camera_device.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <cerrno>

#include "platform/camera_buffers.h"
#include "utils/log_printf.h"

namespace varnel::platform {
namespace {

using hal_adapter::CAMERA_STATE_INITIALISED;
using hal_adapter::CAMERA_STATE_NOT_INITIALISED;
using hal_adapter::CAMERA_STATE_OPENED;
using hal_adapter::CameraConfig;
using hal_adapter::CameraImage;
using hal_adapter::CameraInfo;
using hal_adapter::HalStatus;

constexpr const char* kTag = "IMMMCAM";

HalStatus CheckCapabilities(CameraInstance& inst) {
  v4l2_capability capability{};
  if (!CameraControl(inst, VIDIOC_QUERYCAP, &capability)) {
    PLOG_ERROR(kTag, "VIDIOC_QUERYCAP failed");
    return HalStatus::kNoMemory;
  }
  if ((capability.capabilities & V4L2_CAP_VIDEO_CAPTURE) == 0) {
    PLOG_ERROR(kTag, "Device does not support video capture");
    return HalStatus::kNoMemory;
  }
  if ((capability.capabilities & V4L2_CAP_STREAMING) == 0) {
    PLOG_ERROR(kTag, "Device does not support streaming");
    return HalStatus::kNoMemory;
  }
  return HalStatus::kSuccess;
}

/// 0 for a format that we do not know: the driver chooses.
uint32_t FourccOf(uint32_t pixel_format) {
  switch (pixel_format) {
    case hal_adapter::CAMERA_PIXEL_FORMAT_NV12:
      return V4L2_PIX_FMT_NV12;
    case hal_adapter::CAMERA_PIXEL_FORMAT_YUYV:
      return V4L2_PIX_FMT_YUYV;
    default:
      return 0;
  }
}

/// Bytes of a line without padding, 0 when it is not known.
uint32_t LineBytesOf(const CameraInstance& inst) {
  if (inst.pixel_format == hal_adapter::CAMERA_PIXEL_FORMAT_NV12) return inst.width;
  return inst.pixel_format == hal_adapter::CAMERA_PIXEL_FORMAT_YUYV ? 2 * inst.width : 0;
}

/// The size of a frame without padding, 0 when it is not known.
size_t FrameBytesOf(const CameraInstance& inst) {
  const size_t luma = size_t{inst.width} * inst.height;
  if (inst.pixel_format == hal_adapter::CAMERA_PIXEL_FORMAT_NV12) return luma + luma / 2;
  return inst.pixel_format == hal_adapter::CAMERA_PIXEL_FORMAT_YUYV ? 2 * luma : 0;
}

bool IsPadded(const CameraInstance& inst, const CameraImage& image) {
  const uint32_t line = LineBytesOf(inst);
  return line != 0 && inst.granted.bytesperline != 0 && inst.granted.bytesperline != line &&
         image.size != 0 && image.size != FrameBytesOf(inst);
}

HalStatus SetFormat(CameraInstance& inst) {
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  format.fmt.pix.width = inst.width;
  format.fmt.pix.height = inst.height;
  format.fmt.pix.field = V4L2_FIELD_ANY;
  format.fmt.pix.pixelformat = FourccOf(inst.pixel_format);
  if (format.fmt.pix.pixelformat == 0) PLOG_WARN(kTag, "No format has been set.");
  if (!CameraControl(inst, VIDIOC_S_FMT, &format)) {
    PLOG_ERROR(kTag, "VIDIOC_S_FMT failed");
    return HalStatus::kNoMemory;
  }
  inst.granted = format.fmt.pix;
  return HalStatus::kSuccess;
}

HalStatus RequestBuffers(CameraInstance& inst) {
  v4l2_requestbuffers request{};
  request.count = kCameraBufferCount;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  if (!CameraControl(inst, VIDIOC_REQBUFS, &request)) {
    PLOG_ERROR(kTag, "VIDIOC_REQBUFS failed");
    return HalStatus::kNoMemory;
  }
  if (request.count < kCameraBufferCount) {
    PLOG_ERROR(kTag, "Insufficient buffer memory");
    return HalStatus::kNoResource;
  }
  return HalStatus::kSuccess;
}

/// Makes the opened device ready for mapping; the driver frees its buffers when the device is
/// closed.
HalStatus Configure(CameraInstance& inst) {
  HalStatus status = CheckCapabilities(inst);
  if (status == HalStatus::kSuccess) status = SetFormat(inst);
  if (status == HalStatus::kSuccess) status = RequestBuffers(inst);
  return status;
}

HalStatus CheckOpenable(const CameraInstance* inst, const CameraConfig* config) {
  if (inst == nullptr || inst->info == nullptr || config == nullptr) {
    PLOG_ERROR(kTag, "The input parameter inst or info or config is NULL");
    return HalStatus::kInvalidParameter;
  }
  if (inst->state != CAMERA_STATE_INITIALISED) {
    PLOG_ERROR(kTag, "The instance has not been initialized");
    return HalStatus::kUnsupported;
  }
  if (inst->fd > 0) {
    PLOG_ERROR(kTag, "The camera device has been opened");
    return HalStatus::kInvalidState;
  }
  return HalStatus::kSuccess;
}

/// Converted as if it were what was asked for, such a frame gives a picture of nothing.
void RefuseFrames(const CameraInstance& inst) {
  const v4l2_pix_format& granted = inst.granted;
  PLOG_ERROR(kTag,
             "The camera gives %ux%u in format 0x%08x with lines of %u bytes instead of %ux%u in "
             "0x%08x with %u, no photo is taken",
             granted.width, granted.height, granted.pixelformat, granted.bytesperline, inst.width,
             inst.height, FourccOf(inst.pixel_format), LineBytesOf(inst));
}

bool SetStream(CameraInstance& inst, unsigned long request) {
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  return CameraControl(inst, request, &type);
}

/// Takes one frame off the running stream; leaves the image alone when none came.
void FetchFrame(CameraInstance& inst, CameraImage& image) {
  v4l2_buffer buffer{};
  if (!DequeueCameraBuffer(inst, buffer)) return;
  image = CameraFrame(inst, buffer);
  if (!QueueCameraBuffer(inst, buffer.index)) PLOG_ERROR(kTag, "VIDIOC_QBUF");
}

/// Streaming runs.
HalStatus FetchWholeFrame(CameraInstance& inst, CameraImage& image) {
  FetchFrame(inst, image);
  inst.padded = IsPadded(inst, image);
  if (!SetStream(inst, VIDIOC_STREAMOFF)) {
    PLOG_ERROR(kTag, "VIDIOC_STREAMOFF failed");
    return HalStatus::kNoMemory;
  }
  if (!inst.padded) return HalStatus::kSuccess;
  RefuseFrames(inst);
  image = {};
  return HalStatus::kNoMemory;
}

}  // namespace

HalStatus camera_device_init(CameraInstance* inst, const CameraInfo* info, const char* device_path,
                             const V4l2Calls* calls) {
  if (inst == nullptr || info == nullptr || device_path == nullptr) {
    PLOG_ERROR(kTag, "The input parameter inst or info or device filepath is NULL");
    return HalStatus::kInvalidParameter;
  }
  *inst = CameraInstance{};
  inst->info = info;
  inst->device_path = device_path;
  inst->calls = calls;
  inst->state = CAMERA_STATE_INITIALISED;
  return HalStatus::kSuccess;
}

HalStatus camera_device_open(CameraInstance* inst, const CameraConfig* config) {
  HalStatus status = CheckOpenable(inst, config);
  if (status != HalStatus::kSuccess) return status;
  inst->width = config->width;
  inst->height = config->height;
  inst->pixel_format = config->pixel_format;
  inst->device_lost = false;
  inst->padded = false;
  PLOG_INFO(kTag, "Camera %s device initialization", inst->info->name);
  inst->fd = inst->calls->open(inst->device_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (inst->fd < 0) {
    PLOG_ERROR(kTag, "Open device %s failed, errno = %d", inst->device_path.c_str(), errno);
    inst->fd = -1;
    return HalStatus::kFailure;
  }
  status = Configure(*inst);
  if (status != HalStatus::kSuccess) {
    inst->calls->close(inst->fd);
    inst->fd = -1;
    return status;
  }
  MapCameraBuffers(*inst);
  inst->state = CAMERA_STATE_OPENED;
  return HalStatus::kSuccess;
}

bool camera_device_gives_what_was_asked(const CameraInstance& inst) {
  const v4l2_pix_format& granted = inst.granted;
  const uint32_t fourcc = FourccOf(inst.pixel_format);
  return granted.width == inst.width && granted.height == inst.height &&
         (fourcc == 0 || granted.pixelformat == fourcc) && !inst.padded;
}

HalStatus camera_device_capture(CameraInstance* inst, CameraImage* image) {
  if (inst == nullptr || image == nullptr) {
    PLOG_ERROR(kTag, "The input parameter inst or image is NULL");
    return HalStatus::kInvalidParameter;
  }
  if (inst->state != CAMERA_STATE_OPENED) {
    PLOG_ERROR(kTag, "The state of camera is not opened");
    return HalStatus::kInvalidState;
  }
  if (!camera_device_gives_what_was_asked(*inst)) {
    RefuseFrames(*inst);
    return HalStatus::kNoMemory;
  }
  for (uint32_t index = 0; index < kCameraBufferCount; ++index) {
    if (!QueueCameraBuffer(*inst, index)) PLOG_ERROR(kTag, "VIDIOC_QBUF failed");
  }
  if (!SetStream(*inst, VIDIOC_STREAMON)) {
    PLOG_ERROR(kTag, "VIDIOC_STREAMON failed");
    return HalStatus::kNoMemory;
  }
  return FetchWholeFrame(*inst, *image);
}

HalStatus camera_device_close(CameraInstance* inst) {
  if (inst == nullptr || inst->info == nullptr) {
    PLOG_ERROR(kTag, "The input parameter inst or info is NULL");
    return HalStatus::kInvalidParameter;
  }
  if (inst->state == CAMERA_STATE_INITIALISED || inst->fd == -1) {
    PLOG_ERROR(kTag, "The state of camera is closed");
    return HalStatus::kInvalidState;
  }
  PLOG_INFO(kTag, "Camera %s deinitialization", inst->info->name);
  UnmapCameraBuffers(*inst);
  if (inst->calls->close(inst->fd) != 0) {
    PLOG_ERROR(kTag, "Close device %s failed", inst->device_path.c_str());
    return HalStatus::kFailure;
  }
  inst->state = CAMERA_STATE_INITIALISED;
  inst->fd = -1;
  return HalStatus::kSuccess;
}

void camera_device_discard(CameraInstance* inst) {
  if (inst->state != CAMERA_STATE_OPENED) return;
  if (camera_device_close(inst) == HalStatus::kSuccess) return;
  // Linux gives the descriptor free even when close() reports an error.
  inst->state = CAMERA_STATE_INITIALISED;
  inst->fd = -1;
}

HalStatus camera_device_destroy(CameraInstance* inst) {
  if (inst == nullptr) {
    PLOG_ERROR(kTag, "The input parameter inst is NULL");
    return HalStatus::kInvalidParameter;
  }
  if (inst->fd != -1) {
    PLOG_ERROR(kTag, "The device file has not been closed yet");
    return HalStatus::kBusy;
  }
  inst->device_path.clear();
  inst->info = nullptr;
  inst->state = CAMERA_STATE_NOT_INITIALISED;
  return HalStatus::kSuccess;
}

}  // namespace varnel::platform

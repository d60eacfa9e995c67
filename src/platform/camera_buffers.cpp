#include "platform/camera_buffers.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

#include "utils/log_printf.h"

namespace varnel::platform {
namespace {

constexpr const char* kTag = "IMMMCAM";
/// From the start of the stream to a whole frame.
constexpr int64_t kWaitMs = 2000;
/// A driver that says that a frame is there and hands none out, or only faulty ones, is not asked
/// again at once: it would take the whole processor.
constexpr int kRetryPauseMs = 10;

/// True when a buffer can be dequeued.
bool WaitForFrame(const CameraInstance& inst, int64_t deadline) {
  for (;;) {
    const int64_t left = std::max<int64_t>(deadline - inst.calls->now_ms(), 0);
    const int ready = left > 0 ? inst.calls->wait_readable(inst.fd, static_cast<int>(left)) : 0;
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) {
      PLOG_ERROR(kTag, "select error");
    } else {
      PLOG_ERROR(kTag, "select timeout");
    }
    return false;
  }
}

/// Whether the capture goes on with this buffer.
bool IsUsable(CameraInstance& inst, const v4l2_buffer& buffer) {
  if (buffer.index >= kCameraBufferCount) {
    PLOG_ERROR(kTag, "v4l2 buffer index out of range");
    return false;
  }
  if ((buffer.flags & V4L2_BUF_FLAG_ERROR) == 0) return true;
  PLOG_DEBUG(kTag, "A faulty frame is skipped");
  if (!QueueCameraBuffer(inst, buffer.index)) PLOG_ERROR(kTag, "VIDIOC_QBUF");
  return false;
}

}  // namespace

bool CameraControl(CameraInstance& inst, unsigned long request, void* argument) {
  int result = 0;
  do {
    result = inst.calls->ioctl(inst.fd, request, argument);
  } while (result == -1 && errno == EINTR);
  if (result == -1 && errno == ENODEV) inst.device_lost = true;
  return result != -1;
}

v4l2_buffer CameraBufferRequest(uint32_t index) {
  v4l2_buffer buffer{};
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  buffer.index = index;
  return buffer;
}

void MapCameraBuffers(CameraInstance& inst) {
  for (uint32_t index = 0; index < kCameraBufferCount; ++index) {
    inst.buffers[index] = {};
    v4l2_buffer buffer = CameraBufferRequest(index);
    if (!CameraControl(inst, VIDIOC_QUERYBUF, &buffer)) {
      PLOG_ERROR(kTag, "VIDIOC_QUERYBUF failed");
      continue;
    }
    void* address = inst.calls->mmap(buffer.length, inst.fd, buffer.m.offset);
    if (address == MAP_FAILED) {
      PLOG_ERROR(kTag, "mmap failed");
      continue;
    }
    inst.buffers[index] = {address, buffer.length};
  }
}

void UnmapCameraBuffers(CameraInstance& inst) {
  for (CameraBuffer& buffer : inst.buffers) {
    if (buffer.address != nullptr && inst.calls->munmap(buffer.address, buffer.length) != 0) {
      PLOG_ERROR(kTag, "munmap failed");
    }
    buffer = {};
  }
}

bool QueueCameraBuffer(CameraInstance& inst, uint32_t index) {
  v4l2_buffer buffer = CameraBufferRequest(index);
  return CameraControl(inst, VIDIOC_QBUF, &buffer);
}

bool DequeueCameraBuffer(CameraInstance& inst, v4l2_buffer& buffer) {
  const int64_t deadline = inst.calls->now_ms() + kWaitMs;
  bool faulty = false;
  while (WaitForFrame(inst, deadline)) {
    buffer = CameraBufferRequest(0);
    const bool dequeued = CameraControl(inst, VIDIOC_DQBUF, &buffer);
    const bool again = !dequeued && errno == EAGAIN;
    if (!dequeued && !again) PLOG_ERROR(kTag, "VIDIOC_DQBUF");
    if (!again && IsUsable(inst, buffer)) return true;
    faulty = faulty || (buffer.flags & V4L2_BUF_FLAG_ERROR) != 0;
    inst.calls->wait_readable(-1, kRetryPauseMs);
  }
  if (faulty) PLOG_ERROR(kTag, "Only faulty frames came");
  return false;
}

hal_adapter::CameraImage CameraFrame(const CameraInstance& inst, const v4l2_buffer& buffer) {
  const CameraBuffer& mapped = inst.buffers[buffer.index];
  hal_adapter::CameraImage image{};
  if (mapped.address != nullptr) {
    image.data = static_cast<const uint8_t*>(mapped.address);
    image.size = std::min<size_t>(buffer.bytesused, mapped.length);
  }
  image.timestamp_ms = static_cast<uint64_t>(buffer.timestamp.tv_sec) * 1000 +
                       static_cast<uint64_t>(buffer.timestamp.tv_usec) / 1000;
  image.width = inst.width;
  image.height = inst.height;
  image.pixel_format = inst.pixel_format;
  image.camera_id = inst.info->camera_id;
  return image;
}

}  // namespace varnel::platform

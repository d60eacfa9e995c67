#pragma once

#include <linux/videodev2.h>

#include "platform/camera_device.h"

/// The camera device's dealings with the driver; used by camera_device.cpp alone.
namespace varnel::platform {

/// An ioctl repeated while a signal interrupts it; notes the loss of the device. True on success.
bool CameraControl(CameraInstance& inst, unsigned long request, void* argument);

v4l2_buffer CameraBufferRequest(uint32_t index);

/// Maps each of the driver's buffers; one that cannot be mapped stays without an address.
void MapCameraBuffers(CameraInstance& inst);
void UnmapCameraBuffers(CameraInstance& inst);

bool QueueCameraBuffer(CameraInstance& inst, uint32_t index);

/// Waits for a filled buffer, passing over faulty ones. False when none came in time or the wait
/// failed; a failing call counts as a buffer, as its number is filled in.
bool DequeueCameraBuffer(CameraInstance& inst, v4l2_buffer& buffer);

/// Describes the frame in `buffer`, never more than what is mapped; empty when nothing is.
hal_adapter::CameraImage CameraFrame(const CameraInstance& inst, const v4l2_buffer& buffer);

}  // namespace varnel::platform

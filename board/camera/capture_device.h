#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "virtual_board/camera/camera_files.h"
#include "virtual_board/camera/camera_model.h"
#include "virtual_board/camera/faults.h"
#include "virtual_board/camera/frame_source.h"
#include "virtual_board/common/fd.h"

namespace varnel::board {

/// Makes a descriptor of a regular file behave as the descriptor of a V4L2 capture device. The
/// buffers are parts of that file, so its user maps them as it maps a driver's. A regular file is
/// always readable: while streaming a timer that expires once a frame therefore takes the
/// descriptor's place, and the file returns when streaming stops.
///
/// Belongs to one open descriptor; calls come from one thread at a time, as libv4l2 arranges.
class CaptureDevice {
 public:
  CaptureDevice(int fd, const CameraModel& model, CameraFiles files);
  CaptureDevice(const CaptureDevice&) = delete;
  CaptureDevice& operator=(const CaptureDevice&) = delete;
  ~CaptureDevice();

  /// False when the file could not be set up.
  [[nodiscard]] bool Ready() const { return static_cast<bool>(file_); }
  /// 0, or -1 with errno set.
  int Ioctl(unsigned long request, void* argument);

 private:
  using Handler = int (CaptureDevice::*)(void*);
  struct Entry {
    unsigned long request;
    const char* name;
    Handler handler;  ///< 0 or the error number
  };
  static const Entry kEntries[];

  static const Entry* Find(unsigned long request);
  int Run(const Entry& entry, void* argument);
  /// The error that is to be injected into this call, or 0; counts the call.
  int InjectedError(const std::string& request);

  int QueryCapabilities(void* argument);
  int EnumFormats(void* argument);
  int GetFormat(void* argument);
  int TryFormat(void* argument);
  int SetFormat(void* argument);
  int EnumFrameSizes(void* argument);
  int EnumFrameIntervals(void* argument);
  int GetFrameRate(void* argument);
  int EnumInputs(void* argument);
  int GetInput(void* argument);
  int SetInput(void* argument);
  int RequestBuffers(void* argument);
  int QueryBuffer(void* argument);
  int QueueBuffer(void* argument);
  int DequeueBuffer(void* argument);
  int StreamOn(void* argument);
  int StreamOff(void* argument);

  int AllocateBuffers(uint32_t count);
  void ReleaseBuffers();
  int StartStream();
  void StopStream();
  /// 0 when a frame is due, EAGAIN, or another error number.
  int AwaitFrame();
  void FillBuffer(uint32_t index, v4l2_buffer& buffer);
  void Describe(uint32_t index, v4l2_buffer& buffer) const;
  [[nodiscard]] std::span<const FrameFormat> Formats() const;
  [[nodiscard]] const FrameFormat& FormatFor(uint32_t pixel_format) const;
  [[nodiscard]] uint32_t Rate() const;
  [[nodiscard]] size_t SlotSize() const;
  [[nodiscard]] int ReplaceDescriptorBy(const Fd& other) const;

  const int fd_;
  const CameraModel& model_;
  const CameraFiles files_;
  const FrameSource source_;
  FrameFormat format_;
  Fd file_;   ///< the file behind fd_, whatever fd_ shows at the moment
  Fd timer_;  ///< open while streaming
  Faults faults_;
  void* memory_ = nullptr;  ///< all buffers, mapped once more for writing frames
  std::vector<bool> queued_;
  std::vector<uint32_t> queue_;  ///< in the order they were queued
  uint32_t sequence_ = 0;
};

}  // namespace varnel::board

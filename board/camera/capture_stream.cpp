// The streaming half of CaptureDevice: queueing, frames and the descriptor that changes its face.
#include <fcntl.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "virtual_board/camera/capture_device.h"

namespace varnel::board {

namespace {

timespec Nanoseconds(int64_t count) {
  return {static_cast<time_t>(count / 1'000'000'000), static_cast<long>(count % 1'000'000'000)};
}

timeval MonotonicNow() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return {now.tv_sec, now.tv_nsec / 1000};
}

/// A mapping at an offset inside a page is refused by the kernel.
constexpr uint32_t kUnmappableOffset = 1;

}  // namespace

void CaptureDevice::Describe(uint32_t index, v4l2_buffer& buffer) const {
  buffer.index = index;
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  // Never "mapped": libv4l2 would refuse to release buffers that say so.
  buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | (queued_[index] ? V4L2_BUF_FLAG_QUEUED : 0U);
  buffer.field = V4L2_FIELD_NONE;
  buffer.length = static_cast<uint32_t>(format_.frame_size);
  buffer.m.offset = static_cast<uint32_t>(index * SlotSize());
}

int CaptureDevice::QueryBuffer(void* argument) {
  auto& buffer = *static_cast<v4l2_buffer*>(argument);
  if (buffer.index >= queued_.size()) return EINVAL;
  Describe(buffer.index, buffer);
  buffer.bytesused = 0;
  if (InjectedError("mmap") != 0) buffer.m.offset += kUnmappableOffset;
  return 0;
}

int CaptureDevice::QueueBuffer(void* argument) {
  auto& buffer = *static_cast<v4l2_buffer*>(argument);
  if (buffer.index >= queued_.size() || queued_[buffer.index]) return EINVAL;
  queued_[buffer.index] = true;
  queue_.push_back(buffer.index);
  Describe(buffer.index, buffer);
  return 0;
}

int CaptureDevice::AwaitFrame() {
  if (!timer_) return EINVAL;
  const bool waits = (::fcntl(file_.Get(), F_GETFL) & O_NONBLOCK) == 0;
  pollfd frame{timer_.Get(), POLLIN, 0};
  if (waits && ::poll(&frame, 1, -1) < 0) return errno;
  // Frames that came while nobody asked are gone, as when a driver has no empty buffer left.
  uint64_t frames = 0;
  const bool due = ::read(timer_.Get(), &frames, sizeof frames) == sizeof frames;
  return due && !faults_.stall && !queue_.empty() ? 0 : EAGAIN;
}

int CaptureDevice::DequeueBuffer(void* argument) {
  if (const int error = AwaitFrame()) return error;
  auto& buffer = *static_cast<v4l2_buffer*>(argument);
  const uint32_t index = queue_.front();
  if (!source_.Deliver(format_, static_cast<char*>(memory_) + index * SlotSize())) return EAGAIN;
  queue_.erase(queue_.begin());
  queued_[index] = false;
  FillBuffer(index, buffer);
  return 0;
}

void CaptureDevice::FillBuffer(uint32_t index, v4l2_buffer& buffer) {
  Describe(index, buffer);
  buffer.bytesused = faults_.error_bytes.value_or(static_cast<uint32_t>(format_.frame_size));
  if (faults_.error_bytes || InjectedError("frame") != 0) buffer.flags |= V4L2_BUF_FLAG_ERROR;
  buffer.timestamp = MonotonicNow();
  buffer.sequence = sequence_++;
  buffer.index = faults_.index.value_or(index);
}

int CaptureDevice::StreamOn(void* argument) {
  if (*static_cast<int*>(argument) != V4L2_BUF_TYPE_VIDEO_CAPTURE || queued_.empty()) return EINVAL;
  return timer_ ? 0 : StartStream();
}

int CaptureDevice::StartStream() {
  Fd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (!timer) return errno;
  const timespec period = Nanoseconds(1'000'000'000 / Rate());
  const itimerspec ticks{period, period};
  // Without a frame to show the camera starts and stays silent.
  if (!faults_.stall && source_.HasFrame(format_))
    ::timerfd_settime(timer.Get(), 0, &ticks, nullptr);
  if (const int error = ReplaceDescriptorBy(timer)) return error;
  timer_ = std::move(timer);
  sequence_ = 0;
  files_.Note("stream-on");
  return 0;
}

int CaptureDevice::StreamOff(void* argument) {
  if (*static_cast<int*>(argument) != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  StopStream();
  queue_.clear();
  queued_.assign(queued_.size(), false);
  return 0;
}

void CaptureDevice::StopStream() {
  if (!timer_) return;
  if (ReplaceDescriptorBy(file_) != 0) files_.Note("the descriptor could not be put back");
  timer_.Reset();
  files_.Note("stream-off");
}

int CaptureDevice::ReplaceDescriptorBy(const Fd& other) const {
  const int flags = ::fcntl(fd_, F_GETFD);
  const int kept = (flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0;
  return ::dup3(other.Get(), fd_, kept) < 0 ? errno : 0;
}

}  // namespace varnel::board

#include "platform/fake_v4l2.h"

#include <sys/mman.h>

#include <cerrno>

namespace varnel::test {
namespace {

constexpr int kDescriptor = 7;

FakeV4l2* driver = nullptr;

int Fail(int error) {
  errno = error;
  return -1;
}

/// Takes the next entry; 0 when there is none.
int Next(std::deque<int>& errnos) {
  if (errnos.empty()) return 0;
  const int error = errnos.front();
  errnos.pop_front();
  return error;
}

int Open(const char* path, int /*flags*/) {
  if (driver->open_errno != 0) return Fail(driver->open_errno);
  driver->opened_path = path;
  ++driver->opens;
  ++driver->open_descriptors;
  return kDescriptor;
}

int Ioctl(int /*fd*/, unsigned long request, void* argument) {
  return driver->Ioctl(request, argument);
}

void* Map(size_t /*length*/, int /*fd*/, int64_t offset) {
  ++driver->mappings;
  return driver->memory[static_cast<size_t>(offset)].data();
}

int Unmap(void* /*address*/, size_t /*length*/) {
  --driver->mappings;
  return 0;
}

int Close(int /*fd*/) {
  --driver->open_descriptors;
  return driver->close_errno != 0 ? Fail(driver->close_errno) : 0;
}

int WaitReadable(int fd, int timeout_ms) {
  if (fd >= 0) return driver->Wait(timeout_ms);
  driver->now_ms += timeout_ms;
  return 0;
}

int64_t NowMs() {
  return driver->now_ms;
}

}  // namespace

const platform::V4l2Calls kFakeV4l2 = {Open, Ioctl, Map, Unmap, Close, WaitReadable, NowMs};

FakeV4l2::FakeV4l2() {
  driver = this;
}

FakeV4l2::~FakeV4l2() {
  driver = nullptr;
}

v4l2_buffer Frame(uint32_t index, uint32_t bytes_used, uint32_t flags) {
  v4l2_buffer frame{};
  frame.index = index;
  frame.bytesused = bytes_used;
  frame.flags = flags;
  frame.timestamp = {12, 345'678};
  return frame;
}

int FakeV4l2::Ioctl(unsigned long request, void* argument) {
  ++calls[request];
  if (request == VIDIOC_DQBUF && always_again) return Fail(EAGAIN);
  if (const int error = Next(ioctl_errnos[request]); error != 0) return Fail(error);
  Serve(request, argument);
  return 0;
}

void FakeV4l2::Serve(unsigned long request, void* argument) {
  auto* buffer = static_cast<v4l2_buffer*>(argument);
  switch (request) {
    case VIDIOC_QUERYCAP:
      static_cast<v4l2_capability*>(argument)->capabilities =
          V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
      break;
    case VIDIOC_S_FMT:
      if (granted) static_cast<v4l2_format*>(argument)->fmt.pix = *granted;
      break;
    case VIDIOC_REQBUFS:
      break;
    case VIDIOC_QUERYBUF:
      buffer->length = kFrameSize;
      buffer->m.offset = buffer->index;
      break;
    case VIDIOC_QBUF:
      queued.push_back(buffer->index);
      break;
    case VIDIOC_DQBUF:
      *buffer = frames.empty() ? Frame(1, kFrameSize) : frames.front();
      if (!frames.empty()) frames.pop_front();
      break;
    default:
      streaming = request == VIDIOC_STREAMON;
  }
}

int FakeV4l2::Wait(int timeout_ms) {
  now_ms += 10;
  const int error = Next(wait_errnos);
  if (error == -1) {
    now_ms += timeout_ms;
    return 0;
  }
  return error != 0 ? Fail(error) : 1;
}

}  // namespace varnel::test

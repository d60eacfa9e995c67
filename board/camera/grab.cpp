// varnel-grab DEVICE FILE [FRAMES]: captures frames through libv4l2 and writes the last one to
// FILE. On a failure it names the call and the error and ends with 1; when no frame comes within
// two seconds, with 2.
#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kBuffers = 3;

[[noreturn]] void Fail(const char* what, int error) {
  std::printf("%s: %s\n", what, ::strerrorname_np(error));
  std::exit(1);
}

struct Mapping {
  void* address;
  size_t length;
};

class Grabber {
 public:
  Grabber(const char* device, uint32_t format)
      : fd_(::v4l2_open(device, O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
    if (fd_ < 0) Fail("open", errno);
    // Asked for the sensor's own format libv4l2 passes frames through; the formats it lists it
    // would convert to.
    Configure(format);
    MapBuffers();
  }
  Grabber(const Grabber&) = delete;
  Grabber& operator=(const Grabber&) = delete;
  ~Grabber() {
    for (const Mapping& mapping : mappings_) ::v4l2_munmap(mapping.address, mapping.length);
    v4l2_requestbuffers none = Request(0);
    Call("release", VIDIOC_REQBUFS, &none);
    if (::v4l2_close(fd_) != 0) Fail("close", errno);
  }

  /// One stream start, one frame, one stream stop: as a camera is used that idles between photos.
  std::string Capture() {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (uint32_t i = 0; i < mappings_.size(); ++i) {
      v4l2_buffer buffer = Buffer(i);
      Call("VIDIOC_QBUF", VIDIOC_QBUF, &buffer);
    }
    Call("VIDIOC_STREAMON", VIDIOC_STREAMON, &type);
    std::string frame = Dequeue();
    Call("VIDIOC_STREAMOFF", VIDIOC_STREAMOFF, &type);
    return frame;
  }

 private:
  static v4l2_requestbuffers Request(uint32_t count) {
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    return request;
  }

  static v4l2_buffer Buffer(uint32_t index) {
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    return buffer;
  }

  void Call(const char* name, unsigned long request, void* argument) const {
    if (::v4l2_ioctl(fd_, request, argument) != 0) Fail(name, errno);
  }

  void Configure(uint32_t pixel_format) const {
    v4l2_capability capability{};
    Call("VIDIOC_QUERYCAP", VIDIOC_QUERYCAP, &capability);
    if ((capability.device_caps & V4L2_CAP_VIDEO_CAPTURE) == 0) Fail("capture", ENOTSUP);
    if ((capability.device_caps & V4L2_CAP_STREAMING) == 0) Fail("streaming", ENOTSUP);
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = 1920;
    format.fmt.pix.height = 1080;
    format.fmt.pix.pixelformat = pixel_format;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    Call("VIDIOC_S_FMT", VIDIOC_S_FMT, &format);
  }

  void MapBuffers() {
    v4l2_requestbuffers request = Request(kBuffers);
    Call("VIDIOC_REQBUFS", VIDIOC_REQBUFS, &request);
    if (request.count < kBuffers) Fail("buffers", ENOMEM);
    for (uint32_t i = 0; i < kBuffers; ++i) {
      v4l2_buffer buffer = Buffer(i);
      Call("VIDIOC_QUERYBUF", VIDIOC_QUERYBUF, &buffer);
      void* address = ::v4l2_mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd_,
                                  buffer.m.offset);
      if (address == MAP_FAILED) Fail("mmap", errno);
      mappings_.push_back({address, buffer.length});
    }
  }

  std::string Dequeue() {
    pollfd readable{fd_, POLLIN, 0};
    if (::poll(&readable, 1, 2000) != 1) {
      std::puts("timeout");
      std::exit(2);
    }
    v4l2_buffer buffer = Buffer(0);
    Call("VIDIOC_DQBUF", VIDIOC_DQBUF, &buffer);
    if (buffer.index >= mappings_.size()) Fail("index", ERANGE);
    if ((buffer.flags & V4L2_BUF_FLAG_ERROR) != 0) Fail("frame", EIO);
    return {static_cast<char*>(mappings_[buffer.index].address), buffer.bytesused};
  }

  const int fd_;
  std::vector<Mapping> mappings_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("Usage: varnel-grab DEVICE FILE [FRAMES]\n", stderr);
    return 1;
  }
  const bool usb = std::string(argv[1]) == "/dev/video18";
  Grabber grabber(argv[1], usb ? V4L2_PIX_FMT_YUYV : V4L2_PIX_FMT_NV12);
  const int frames = argc > 3 ? std::atoi(argv[3]) : 1;
  std::string frame;
  for (int i = 0; i < frames; ++i) frame = grabber.Capture();
  std::ofstream(argv[2], std::ios::binary) << frame;
  return 0;
}

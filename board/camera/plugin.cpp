// What libv4l2 loads: offers every opened descriptor to the virtual cameras.
#include <libv4l-plugin.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "virtual_board/camera/capture_device.h"

namespace {

using varnel::board::CameraFiles;
using varnel::board::CameraModel;
using varnel::board::CaptureDevice;

constexpr const char* kCameraDirectory = "/run/varnel-board/camera";

std::string PathOf(int fd) {
  char path[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

/// Only a regular file at a camera's path is ours; a real device stays with its driver.
const CameraModel* ModelOf(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  return varnel::board::FindCameraModel(PathOf(fd));
}

void* Open(int fd) noexcept try {
  const CameraModel* model = ModelOf(fd);
  if (model == nullptr) return nullptr;
  auto device = std::make_unique<CaptureDevice>(fd, *model, CameraFiles(kCameraDirectory));
  return device->Ready() ? device.release() : nullptr;
} catch (...) {
  return nullptr;
}

void Close(void* device) noexcept {
  const std::unique_ptr<CaptureDevice> owned(static_cast<CaptureDevice*>(device));
}

int Control(void* device, int /*fd*/, unsigned long request, void* argument) noexcept try {
  return static_cast<CaptureDevice*>(device)->Ioctl(request, argument);
} catch (...) {
  errno = ENOMEM;
  return -1;
}

}  // namespace

extern "C" __attribute__((visibility("default")))
const libv4l_dev_ops libv4l2_plugin = {&Open,   &Close,  &Control, nullptr, nullptr, nullptr,
                                       nullptr, nullptr, nullptr,  nullptr, nullptr, nullptr};

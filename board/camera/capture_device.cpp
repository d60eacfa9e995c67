#include "virtual_board/camera/capture_device.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "virtual_board/common/files.h"

namespace varnel::board {

namespace {

constexpr uint32_t kDefaultRate = 30;
constexpr uint32_t kMaximumBuffers = 32;
constexpr size_t kPage = 4096;

template <class T>
T& As(void* argument) {
  return *static_cast<T*>(argument);
}

template <size_t N>
void CopyText(__u8 (&target)[N], std::string_view text) {
  std::memcpy(target, text.data(), std::min(text.size(), N - 1));
}

/// A fixed sensor: whatever size is asked for, this is what it gives.
void Fill(v4l2_format& target, const FrameFormat& format) {
  target.fmt.pix = {};
  target.fmt.pix.width = format.width;
  target.fmt.pix.height = format.height;
  target.fmt.pix.pixelformat = format.pixel_format;
  target.fmt.pix.field = V4L2_FIELD_NONE;
  target.fmt.pix.bytesperline = format.bytes_per_line;
  target.fmt.pix.sizeimage = static_cast<uint32_t>(format.frame_size);
  target.fmt.pix.colorspace = V4L2_COLORSPACE_SMPTE170M;
}

bool IsCapture(uint32_t type) {
  return type == V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

}  // namespace

const CaptureDevice::Entry CaptureDevice::kEntries[] = {
    {VIDIOC_QUERYCAP, "VIDIOC_QUERYCAP", &CaptureDevice::QueryCapabilities},
    {VIDIOC_ENUM_FMT, "VIDIOC_ENUM_FMT", &CaptureDevice::EnumFormats},
    {VIDIOC_G_FMT, "VIDIOC_G_FMT", &CaptureDevice::GetFormat},
    {VIDIOC_TRY_FMT, "VIDIOC_TRY_FMT", &CaptureDevice::TryFormat},
    {VIDIOC_S_FMT, "VIDIOC_S_FMT", &CaptureDevice::SetFormat},
    {VIDIOC_ENUM_FRAMESIZES, "VIDIOC_ENUM_FRAMESIZES", &CaptureDevice::EnumFrameSizes},
    {VIDIOC_ENUM_FRAMEINTERVALS, "VIDIOC_ENUM_FRAMEINTERVALS", &CaptureDevice::EnumFrameIntervals},
    {VIDIOC_G_PARM, "VIDIOC_G_PARM", &CaptureDevice::GetFrameRate},
    {VIDIOC_S_PARM, "VIDIOC_S_PARM", &CaptureDevice::GetFrameRate},
    {VIDIOC_ENUMINPUT, "VIDIOC_ENUMINPUT", &CaptureDevice::EnumInputs},
    {VIDIOC_G_INPUT, "VIDIOC_G_INPUT", &CaptureDevice::GetInput},
    {VIDIOC_S_INPUT, "VIDIOC_S_INPUT", &CaptureDevice::SetInput},
    {VIDIOC_REQBUFS, "VIDIOC_REQBUFS", &CaptureDevice::RequestBuffers},
    {VIDIOC_QUERYBUF, "VIDIOC_QUERYBUF", &CaptureDevice::QueryBuffer},
    {VIDIOC_QBUF, "VIDIOC_QBUF", &CaptureDevice::QueueBuffer},
    {VIDIOC_DQBUF, "VIDIOC_DQBUF", &CaptureDevice::DequeueBuffer},
    {VIDIOC_STREAMON, "VIDIOC_STREAMON", &CaptureDevice::StreamOn},
    {VIDIOC_STREAMOFF, "VIDIOC_STREAMOFF", &CaptureDevice::StreamOff},
};

CaptureDevice::CaptureDevice(int fd, const CameraModel& model, CameraFiles files)
    : fd_(fd),
      model_(model),
      files_(files),
      source_(std::move(files)),
      format_(model.formats.front()),
      file_(::fcntl(fd, F_DUPFD_CLOEXEC, 0)) {
  files_.Note("open " + std::string(model.device_path));
}

CaptureDevice::~CaptureDevice() {
  StopStream();
  ReleaseBuffers();
  files_.Note("close " + std::string(model_.device_path));
}

const CaptureDevice::Entry* CaptureDevice::Find(unsigned long request) {
  // Requests travel as int in some callers and come back sign-extended.
  const auto same = [&](const Entry& entry) {
    return ((entry.request ^ request) & 0xffffffffU) == 0;
  };
  const auto* entry = std::find_if(std::begin(kEntries), std::end(kEntries), same);
  return entry == std::end(kEntries) ? nullptr : entry;
}

int CaptureDevice::Ioctl(unsigned long request, void* argument) {
  const Entry* entry = Find(request);
  const int error = entry == nullptr ? ENOTTY : Run(*entry, argument);
  errno = error;
  return error == 0 ? 0 : -1;
}

int CaptureDevice::Run(const Entry& entry, void* argument) {
  if (const int error = InjectedError(entry.name)) return error;
  return (this->*entry.handler)(argument);
}

int CaptureDevice::InjectedError(const std::string& request) {
  faults_ = Faults::Parse(ReadFile(files_.Faults()));
  if (faults_.unplug) return ENODEV;
  const Faults::Failure* failure = faults_.Find(request);
  if (failure == nullptr) return 0;
  if (failure->count > 0 || failure->skip > 0) {
    files_.EditFaults([&](const std::string& text) { return Faults::CountDown(text, request); });
  }
  return failure->skip > 0 ? 0 : failure->error;
}

int CaptureDevice::QueryCapabilities(void* argument) {
  auto& capability = As<v4l2_capability>(argument);
  capability = {};
  CopyText(capability.driver, "virtual");
  CopyText(capability.card, model_.card);
  CopyText(capability.bus_info, "platform:virtual");
  capability.version = (5 << 16) | (10 << 8);
  capability.device_caps = (faults_.no_capture ? 0U : V4L2_CAP_VIDEO_CAPTURE) |
                           (faults_.no_streaming ? 0U : V4L2_CAP_STREAMING);
  capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
  return 0;
}

int CaptureDevice::EnumFormats(void* argument) {
  auto& format = As<v4l2_fmtdesc>(argument);
  if (!IsCapture(format.type) || format.index >= Formats().size()) return EINVAL;
  format.flags = 0;
  format.pixelformat = Formats()[format.index].pixel_format;
  CopyText(format.description, Formats()[format.index].name);
  return 0;
}

int CaptureDevice::GetFormat(void* argument) {
  auto& format = As<v4l2_format>(argument);
  if (!IsCapture(format.type)) return EINVAL;
  Fill(format, format_);
  return 0;
}

int CaptureDevice::TryFormat(void* argument) {
  auto& format = As<v4l2_format>(argument);
  if (!IsCapture(format.type)) return EINVAL;
  Fill(format, FormatFor(format.fmt.pix.pixelformat));
  if (faults_.size) std::tie(format.fmt.pix.width, format.fmt.pix.height) = *faults_.size;
  return 0;
}

int CaptureDevice::SetFormat(void* argument) {
  if (memory_ != nullptr) return EBUSY;
  const int error = TryFormat(argument);
  if (error == 0) format_ = FormatFor(As<v4l2_format>(argument).fmt.pix.pixelformat);
  return error;
}

std::span<const FrameFormat> CaptureDevice::Formats() const {
  const size_t count = model_.formats.size();
  return model_.formats.first(std::clamp<size_t>(faults_.formats.value_or(count), 1, count));
}

const FrameFormat& CaptureDevice::FormatFor(uint32_t pixel_format) const {
  for (const FrameFormat& format : Formats()) {
    if (format.pixel_format == pixel_format) return format;
  }
  return model_.formats.front();
}

int CaptureDevice::EnumFrameSizes(void* argument) {
  auto& size = As<v4l2_frmsizeenum>(argument);
  if (size.index != 0 || FormatFor(size.pixel_format).pixel_format != size.pixel_format)
    return EINVAL;
  size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
  size.discrete = {format_.width, format_.height};
  return 0;
}

int CaptureDevice::EnumFrameIntervals(void* argument) {
  auto& interval = As<v4l2_frmivalenum>(argument);
  if (interval.index != 0) return EINVAL;
  interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
  interval.discrete = {1, Rate()};
  return 0;
}

int CaptureDevice::GetFrameRate(void* argument) {
  auto& parameters = As<v4l2_streamparm>(argument);
  if (!IsCapture(parameters.type)) return EINVAL;
  parameters.parm.capture = {};
  parameters.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
  parameters.parm.capture.timeperframe = {1, Rate()};
  return 0;
}

int CaptureDevice::EnumInputs(void* argument) {
  auto& input = As<v4l2_input>(argument);
  if (input.index != 0) return EINVAL;
  input = {};
  CopyText(input.name, "Sensor");
  input.type = V4L2_INPUT_TYPE_CAMERA;
  return 0;
}

int CaptureDevice::GetInput(void* argument) {
  As<int>(argument) = 0;
  return 0;
}

int CaptureDevice::SetInput(void* argument) {
  return As<int>(argument) == 0 ? 0 : EINVAL;
}

int CaptureDevice::RequestBuffers(void* argument) {
  auto& request = As<v4l2_requestbuffers>(argument);
  if (!IsCapture(request.type) || request.memory != V4L2_MEMORY_MMAP) return EINVAL;
  if (timer_) return EBUSY;
  ReleaseBuffers();
  request.count =
      std::min({request.count, kMaximumBuffers, faults_.buffers.value_or(kMaximumBuffers)});
  request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
  return request.count == 0 ? 0 : AllocateBuffers(request.count);
}

int CaptureDevice::AllocateBuffers(uint32_t count) {
  // Only one user of a camera may hold buffers, as with a driver.
  if (::flock(file_.Get(), LOCK_EX | LOCK_NB) != 0) return EBUSY;
  const size_t size = count * SlotSize();
  // The file only grows: a mapping that its user still holds stays valid.
  const off_t current = ::lseek(file_.Get(), 0, SEEK_END);
  if (current < static_cast<off_t>(size) &&
      ::ftruncate(file_.Get(), static_cast<off_t>(size)) != 0) {
    return ENOMEM;
  }
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file_.Get(), 0);
  if (memory == MAP_FAILED) return ENOMEM;
  memory_ = memory;
  queued_.assign(count, false);
  return 0;
}

void CaptureDevice::ReleaseBuffers() {
  if (memory_ == nullptr) return;
  ::munmap(memory_, queued_.size() * SlotSize());
  ::flock(file_.Get(), LOCK_UN);
  memory_ = nullptr;
  queued_.clear();
  queue_.clear();
}

size_t CaptureDevice::SlotSize() const {
  return (format_.frame_size + kPage - 1) / kPage * kPage;
}

uint32_t CaptureDevice::Rate() const {
  return std::max(1U, faults_.rate.value_or(kDefaultRate));
}

}  // namespace varnel::board

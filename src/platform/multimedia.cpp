#include "platform/multimedia.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "hal_interface/hal_register.h"
#include "hal_interface/platform_init.h"
#include "platform/camera_device.h"
#include "platform/command_output.h"
#include "utils/log_printf.h"

namespace varnel::platform {
namespace {

using hal_adapter::CameraConfig;
using hal_adapter::CameraImage;
using hal_adapter::CameraInfo;
using hal_adapter::HalStatus;

constexpr const char* kTag = "IMMM";
constexpr uint32_t kProbeLimitMs = 5'000;
constexpr size_t kProbeOutputLimit = 1024;
/// A sensor that stays silent that often is opened anew.
constexpr int kMaxFramesMissed = 3;

struct CameraDescription {
  CameraInfo info;
  CameraConfig default_config;
};

constexpr CameraDescription kMipiCamera = {
    {0, 0, hal_adapter::CAMERA_TYPE_MIPI, "MIPI Camera", 1920, 1080, 30, {1, 1, 1}},
    {1920, 1080, hal_adapter::CAMERA_PIXEL_FORMAT_NV12}};
constexpr CameraDescription kUsbCamera = {
    {0, 0, hal_adapter::CAMERA_TYPE_USB, "USB Camera", 1920, 1080, 30, {1, 1, 1}},
    {1920, 1080, hal_adapter::CAMERA_PIXEL_FORMAT_YUYV}};

/// The one camera of the process; the HAL adapter serialises the calls.
struct Multimedia {
  const CameraDescription* selected = nullptr;
  CameraInstance camera;
  /// What the camera is to be open with: set by open_camera, cleared by close_camera. A camera that
  /// got lost, or was not there yet, is opened with it before the next photo.
  std::optional<CameraConfig> wanted;
  int frames_missed = 0;  ///< in a row
};
Multimedia multimedia;

HalStatus GetCameraCount(uint32_t* count) {
  if (count == nullptr) return hal_adapter::kHalInvalidParameter;
  *count = 1;
  return hal_adapter::kHalSuccess;
}

HalStatus GetCameraInfo(uint32_t id, CameraInfo* info) {
  PLOG_INFO(kTag, "Get camera %d information", static_cast<int>(id));
  if (info == nullptr || multimedia.selected == nullptr) return hal_adapter::kHalInvalidParameter;
  *info = multimedia.selected->info;
  return hal_adapter::kHalSuccess;
}

HalStatus GetCameraState(uint32_t id, uint32_t* state) {
  PLOG_INFO(kTag, "Get camera %d state", static_cast<int>(id));
  if (state == nullptr) return hal_adapter::kHalInvalidParameter;
  *state = multimedia.camera.state;
  return hal_adapter::kHalSuccess;
}

HalStatus OpenCamera(uint32_t /*id*/, const CameraConfig* config) {
  if (config == nullptr && multimedia.selected == nullptr) {
    PLOG_ERROR(kTag, "The configuration has not been set and there is no default configuration");
    return hal_adapter::kHalInvalidParameter;
  }
  if (config == nullptr) config = &multimedia.selected->default_config;
  if (multimedia.camera.state == hal_adapter::CAMERA_STATE_INITIALISED) multimedia.wanted = *config;
  return camera_device_open(&multimedia.camera, config);
}

HalStatus CloseCamera(uint32_t /*id*/) {
  multimedia.wanted.reset();
  return camera_device_close(&multimedia.camera);
}

bool LacksBuffers(const CameraInstance& camera) {
  return std::any_of(std::begin(camera.buffers), std::end(camera.buffers),
                     [](const CameraBuffer& buffer) { return buffer.address == nullptr; });
}

/// Why an open camera is of no use any more; null when it is. A call that failed leaves the stream
/// in a state nobody knows: the next picture might be an old one.
const char* WhyUseless(const CameraInstance& camera, HalStatus status, bool empty) {
  if (camera.state != hal_adapter::CAMERA_STATE_OPENED) return nullptr;
  if (camera.device_lost) return "gone";
  if (status != hal_adapter::kHalSuccess) return "out of order";
  if (empty && LacksBuffers(camera)) return "without buffers";
  return multimedia.frames_missed >= kMaxFramesMissed ? "silent" : nullptr;
}

HalStatus TakePhoto(uint32_t id, CameraImage* image) {
  CameraInstance& camera = multimedia.camera;
  if (multimedia.wanted && camera.state == hal_adapter::CAMERA_STATE_INITIALISED) {
    const HalStatus opened = camera_device_open(&camera, &*multimedia.wanted);
    if (opened != hal_adapter::kHalSuccess) return opened;
  }
  const HalStatus status = camera_device_capture(&camera, image);
  if (image == nullptr) return status;
  const bool lost = camera.device_lost;
  multimedia.frames_missed = image->size == 0 ? multimedia.frames_missed + 1 : 0;
  const char* reason = WhyUseless(camera, status, image->size == 0);
  if (reason == nullptr) return status;
  PLOG_ERROR(kTag, "Camera %d is %s, the next photo opens it again", static_cast<int>(id), reason);
  camera_device_discard(&camera);
  camera.device_lost = false;
  multimedia.frames_missed = 0;
  *image = {};  // it pointed into the buffers
  return lost && status == hal_adapter::kHalSuccess ? hal_adapter::kHalNoMemory : status;
}

constexpr hal_adapter::MultimediaHalInterface kTable = {
    GetCameraCount, GetCameraInfo, GetCameraState, OpenCamera,
    CloseCamera,    nullptr,       nullptr,        TakePhoto};

/// "UU" in the answer: a driver of a sensor holds the address. A bus that cannot be asked counts as
/// held.
bool HasMipiSensor(const std::string& i2cdetect) {
  utils::SafeExec probe(i2cdetect);
  probe.AddArg("-y").AddArg("4").AddArg("0x37").AddArg("0x37").SetTimeout(kProbeLimitMs);
  const CommandOutput output = run_command(probe, kProbeOutputLimit);
  return output.status != 0 || output.text.find("UU") != std::string::npos;
}

}  // namespace

HalStatus multimedia_init(const MultimediaBoard& board) {
  const bool mipi = HasMipiSensor(board.i2cdetect);
  multimedia = {};
  multimedia.selected = mipi ? &kMipiCamera : &kUsbCamera;
  const std::string& device = mipi ? board.mipi_device : board.usb_device;
  const HalStatus status = camera_device_init(&multimedia.camera, &multimedia.selected->info,
                                              device.c_str(), board.calls);
  if (status == hal_adapter::kHalSuccess) hal_adapter::register_multimedia_hal(&kTable);
  return status;
}

HalStatus platform_multimedia_init() {
  return multimedia_init({});
}

void platform_multimedia_shutdown() {
  if (multimedia.camera.state == hal_adapter::CAMERA_STATE_OPENED) {
    camera_device_discard(&multimedia.camera);
  }
  static_cast<void>(camera_device_destroy(&multimedia.camera));
  multimedia = {};
}

}  // namespace varnel::platform

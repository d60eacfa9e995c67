#include "platform/multimedia.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

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
/// While somebody waits for a photo.
constexpr uint32_t kLaterProbeLimitMs = 1'000;
constexpr size_t kProbeOutputLimit = 1024;
/// A sensor that stays silent that often is opened anew.
constexpr int kMaxFramesMissed = 3;
/// The first frames of a sensor are too dark or too bright. Whoever asked for the photo waits for
/// them, so their time is limited.
constexpr int kWarmUpFrames = 10;
constexpr int64_t kWarmUpLimitMs = 2'000;

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

/// What stands at a path: none, or another one after it has come again.
using Mark = std::optional<std::pair<dev_t, ino_t>>;

/// The one camera of the process; the HAL adapter serialises the calls.
struct Multimedia {
  MultimediaBoard board;
  const CameraDescription* selected = nullptr;
  CameraInstance camera;
  /// The camera is to be open: set by open_camera, cleared by close_camera. One that got lost, or
  /// was not there yet, is opened before the next photo.
  bool wanted = false;
  std::optional<CameraConfig> config;  ///< to open it with; none: the selected camera's default
  std::array<Mark, 3> marks;           ///< of the drivers, when the camera was selected
  int frames_missed = 0;               ///< in a row
};
Multimedia multimedia;

HalStatus GetCameraCount(uint32_t* count) {
  if (count == nullptr) return HalStatus::kInvalidParameter;
  *count = 1;
  return HalStatus::kSuccess;
}

HalStatus GetCameraInfo(uint32_t id, CameraInfo* info) {
  PLOG_INFO(kTag, "Get camera %d information", static_cast<int>(id));
  if (info == nullptr || multimedia.selected == nullptr) return HalStatus::kInvalidParameter;
  *info = multimedia.selected->info;
  return HalStatus::kSuccess;
}

HalStatus GetCameraState(uint32_t id, uint32_t* state) {
  PLOG_INFO(kTag, "Get camera %d state", static_cast<int>(id));
  if (state == nullptr) return HalStatus::kInvalidParameter;
  *state = multimedia.camera.state;
  return HalStatus::kSuccess;
}

HalStatus OpenCamera(uint32_t /*id*/, const CameraConfig* config) {
  if (config == nullptr && multimedia.selected == nullptr) {
    PLOG_ERROR(kTag, "The configuration has not been set and there is no default configuration");
    return HalStatus::kInvalidParameter;
  }
  if (multimedia.camera.state == hal_adapter::CAMERA_STATE_INITIALISED) {
    multimedia.wanted = true;
    multimedia.config = config != nullptr ? std::optional(*config) : std::nullopt;
  }
  if (config == nullptr) config = &multimedia.selected->default_config;
  return camera_device_open(&multimedia.camera, config);
}

HalStatus CloseCamera(uint32_t /*id*/) {
  multimedia.wanted = false;
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
  if (!camera_device_gives_what_was_asked(camera)) return "giving wrong frames";
  if (status != HalStatus::kSuccess) return "out of order";
  if (empty && LacksBuffers(camera)) return "without buffers";
  return multimedia.frames_missed >= kMaxFramesMissed ? "silent" : nullptr;
}

/// What i2cdetect says of the sensor's address; "UU": a driver holds it.
CommandOutput ProbeSensor(uint32_t limit_ms) {
  utils::SafeExec probe(multimedia.board.i2cdetect);
  probe.AddArg("-y").AddArg("4").AddArg("0x37").AddArg("0x37").SetTimeout(limit_ms);
  return run_command(probe, kProbeOutputLimit);
}

const CameraDescription& CameraFor(const CommandOutput& answer) {
  return answer.text.find("UU") != std::string::npos ? kMipiCamera : kUsbCamera;
}

HalStatus Select(const CameraDescription& camera) {
  const MultimediaBoard& board = multimedia.board;
  const std::string& device = &camera == &kMipiCamera ? board.mipi_device : board.usb_device;
  multimedia.selected = &camera;
  return camera_device_init(&multimedia.camera, &camera.info, device.c_str(), board.calls);
}

Mark MarkOf(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return std::pair(info.st_dev, info.st_ino);
}

std::array<Mark, 3> MarksOf(const MultimediaBoard& board) {
  return {MarkOf(board.sensor_driver), MarkOf(board.mipi_device), MarkOf(board.usb_device)};
}

/// A camera's driver may come after the daemon. A bus that cannot be asked changes nothing now.
HalStatus SelectAgain() {
  multimedia.marks = MarksOf(multimedia.board);
  const CommandOutput answer = ProbeSensor(kLaterProbeLimitMs);
  if (answer.exit_code != 0 || &CameraFor(answer) == multimedia.selected) {
    return HalStatus::kSuccess;
  }
  PLOG_WARN(kTag, "From now on the camera is the %s", CameraFor(answer).info.name);
  camera_device_discard(&multimedia.camera);
  return Select(CameraFor(answer));
}

/// Opens the camera if it is to be open and is not, the right one of the two if its driver has come
/// or gone.
HalStatus MakeReady(bool& just_opened) {
  CameraInstance& camera = multimedia.camera;
  const bool closed = camera.state == hal_adapter::CAMERA_STATE_INITIALISED;
  if (!multimedia.wanted) return HalStatus::kSuccess;
  if (closed || multimedia.marks != MarksOf(multimedia.board)) {
    const HalStatus selected = SelectAgain();
    if (selected != HalStatus::kSuccess) return selected;
  }
  if (camera.state != hal_adapter::CAMERA_STATE_INITIALISED) return HalStatus::kSuccess;
  just_opened = true;
  const CameraConfig& fallback = multimedia.selected->default_config;
  const CameraConfig config = multimedia.config.value_or(fallback);
  return camera_device_open(&camera, &config);
}

/// One that was just opened shows a few frames before that of the photo.
HalStatus Capture(CameraInstance& camera, CameraImage& image, bool just_opened) {
  const int64_t deadline = camera.calls->now_ms() + kWarmUpLimitMs;
  for (int left = just_opened ? kWarmUpFrames : 0;; --left) {
    image = {};
    const HalStatus status = camera_device_capture(&camera, &image);
    const bool failed = status != HalStatus::kSuccess || image.size == 0;
    if (failed || left == 0 || camera.calls->now_ms() >= deadline) return status;
  }
}

HalStatus TakePhoto(uint32_t id, CameraImage* image) {
  CameraInstance& camera = multimedia.camera;
  if (image == nullptr) return camera_device_capture(&camera, image);
  bool just_opened = false;
  const HalStatus ready = MakeReady(just_opened);
  if (ready != HalStatus::kSuccess) return ready;
  const HalStatus status = Capture(camera, *image, just_opened);
  const bool lost = camera.device_lost;
  multimedia.frames_missed = image->size == 0 ? multimedia.frames_missed + 1 : 0;
  const char* reason = WhyUseless(camera, status, image->size == 0);
  if (reason == nullptr) return status;
  // Of wrong frames the device has told.
  if (camera_device_gives_what_was_asked(camera)) {
    PLOG_ERROR(kTag, "Camera %d is %s, the next photo opens it again", static_cast<int>(id),
               reason);
  }
  camera_device_discard(&camera);
  camera.device_lost = false;
  multimedia.frames_missed = 0;
  *image = {};  // it pointed into the buffers
  return lost && status == HalStatus::kSuccess ? HalStatus::kNoMemory : status;
}

constexpr hal_adapter::MultimediaHalInterface kTable = {
    GetCameraCount, GetCameraInfo, GetCameraState, OpenCamera,
    CloseCamera,    nullptr,       nullptr,        TakePhoto};

}  // namespace

HalStatus multimedia_init(const MultimediaBoard& board) {
  multimedia = {};
  multimedia.board = board;
  multimedia.marks = MarksOf(board);
  const CommandOutput answer = ProbeSensor(kProbeLimitMs);
  // A bus that cannot be asked counts as held.
  const HalStatus status = Select(answer.exit_code != 0 ? kMipiCamera : CameraFor(answer));
  if (status == HalStatus::kSuccess) hal_adapter::register_multimedia_hal(&kTable);
  return status;
}

HalStatus platform_multimedia_init() {
  return multimedia_init({});
}

void platform_multimedia_shutdown() {
  if (multimedia.camera.state == hal_adapter::CAMERA_STATE_OPENED) {
    camera_device_discard(&multimedia.camera);
  }
  (void)camera_device_destroy(
      &multimedia.camera);  // discarded: nothing is open that it would refuse
  multimedia = {};
}

}  // namespace varnel::platform

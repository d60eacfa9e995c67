#include "hal_adapter/multimedia_adapter.h"

#include <chrono>
#include <system_error>
#include <utility>

namespace varnel::hal_adapter {
namespace {

using namespace std::chrono_literals;

constexpr const char* kTag = "HALMM";
constexpr int kWarmUpPhotos = 10;
constexpr auto kWarmUpPause = 500ms;
constexpr auto kTurnLimit = 10'000ms;

}  // namespace

MultimediaAdapter::MultimediaAdapter(MultimediaSetup setup)
    : setup_(std::move(setup)), writer_(setup_.paths, setup_.has_space), turn_(*setup_.clock) {}

bool MultimediaAdapter::Start() {
  if (!OpenMainCamera()) return false;
  WarmUp();
  ready_ = true;
  return true;
}

bool MultimediaAdapter::OpenMainCamera() {
  const utils::Turn::Holder turn(turn_, kTurnLimit);
  if (!turn) return false;
  const MultimediaHalInterface* table = StartArea(kTag, setup_.init, setup_.registry->multimedia);
  if (table == nullptr || !FindCameras(table)) return false;
  return main_camera_->Open(nullptr) == HalStatus::kSuccess;
}

bool MultimediaAdapter::FindCameras(const MultimediaHalInterface* table) {
  uint32_t count = 0;
  if (Camera(table, 0).GetCount(count) != HalStatus::kSuccess) return false;
  for (uint32_t id = 0; id < count; ++id) {
    auto camera = std::make_shared<Camera>(table, id);
    if (camera->UpdateInfo() == HalStatus::kSuccess) {
      cameras_.push_back(std::move(camera));
    } else {
      VLOG_ERROR(kTag, "Update camera {} info failed", id);
    }
  }
  if (cameras_.empty()) {
    VLOG_ERROR(kTag, "Main camera is invalid");
    return false;
  }
  main_camera_ = cameras_.front();
  return true;
}

/// The first frames of a sensor are too dark or too bright; failures here show in the log and again
/// at a photo.
void MultimediaAdapter::WarmUp() {
  for (int i = 0; i < kWarmUpPhotos; ++i) {
    static_cast<void>(TakePhoto(""));
    setup_.clock->SleepFor(kWarmUpPause);
  }
}

PhotoStatus MultimediaAdapter::TakePhoto(const std::string& path) {
  if (path.empty()) return TakeTurn({});
  std::error_code error;
  const auto place = utils::FilePlace::Of(path, error);
  if (place) return TakePhoto(*place);
  VLOG_ERROR(kTag, "filesystem error: {}", error.message());
  return PhotoStatus::kNotWritable;
}

PhotoStatus MultimediaAdapter::TakePhoto(const utils::FilePlace& place) {
  if (!writer_.HasRoom(place)) return PhotoStatus::kNotWritable;
  // Before anybody waits for the camera: a photo that cannot be written is not taken.
  auto file = writer_.Begin(place);
  if (!file) return PhotoStatus::kNotWritable;
  utils::UniqueFd picture;
  const PhotoStatus taken = TakeTurn(
      [&](const CameraImage& image) { return writer_.Develop(image, place.name, picture); });
  return taken == PhotoStatus::kSuccess ? writer_.Store(picture, *file) : taken;
}

PhotoStatus MultimediaAdapter::TakeTurn(
    const std::function<PhotoStatus(const CameraImage& image)>& develop) {
  const utils::Turn::Holder turn(turn_, kTurnLimit);
  if (!turn) {
    VLOG_ERROR(kTag, "The camera is still busy after {}s, no photo is taken", kTurnLimit / 1000ms);
    return PhotoStatus::kCaptureFailed;
  }
  CameraImage image{};
  if (!Capture(image)) return PhotoStatus::kCaptureFailed;
  VLOG_DEBUG(
      kTag,
      "Photo: size is {}, timestamp is {}ms, width and height is {}x{}, format is {}, camera "
      "id is {}",
      image.size, image.timestamp_ms, image.width, image.height, image.pixel_format,
      image.camera_id);
  if (develop) return develop(image);
  VLOG_INFO(kTag, "filepath is empty, do not save to any file");
  return PhotoStatus::kSuccess;
}

bool MultimediaAdapter::Capture(CameraImage& image) const {
  if (!main_camera_) {
    VLOG_ERROR(kTag, "Main camera is invalid");
    return false;
  }
  if (main_camera_->TakePhoto(image) != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Main camera take photo failed");
    return false;
  }
  if (image.data == nullptr || image.size == 0) {
    VLOG_ERROR(kTag, "The photo data from the main camera is empty");
    return false;
  }
  return true;
}

}  // namespace varnel::hal_adapter

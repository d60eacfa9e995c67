#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hal_adapter/area_start.h"
#include "hal_adapter/camera.h"
#include "hal_adapter/photo_writer.h"
#include "utils/clock.h"
#include "utils/turn.h"

namespace varnel::hal_adapter {

/// What the multimedia adapter is built from; the defaults are the board's.
struct MultimediaSetup {
  AreaInit init;
  utils::SpaceCheck has_space;
  PhotoPaths paths = {};
  const HalRegistry* registry = &HalRegistry::Instance();
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// The multimedia area. Photos are taken one after another, since they share the camera's buffers
/// and the frame file. A turn ends when the picture is whole in a place of ours: a slow drive keeps
/// nobody else from the camera.
class MultimediaAdapter : public PhotoTaker {
 public:
  explicit MultimediaAdapter(MultimediaSetup setup);

  /// Once. Finds the cameras, opens the main one and lets its exposure settle (about 5 s).
  [[nodiscard]] bool Start();
  /// True once Start() is through its warm-up.
  bool Ready() const { return ready_; }

  PhotoStatus TakePhoto(const std::string& path) override;
  PhotoStatus TakePhoto(const utils::FilePlace& place) override;

 private:
  bool OpenMainCamera();
  bool FindCameras(const MultimediaHalInterface* table);
  void WarmUp();
  /// `develop` makes something of the image while the turn lasts; none: nothing.
  PhotoStatus TakeTurn(const std::function<PhotoStatus(const CameraImage& image)>& develop);
  bool Capture(CameraImage& image) const;

  const MultimediaSetup setup_;
  const PhotoWriter writer_;
  std::atomic<bool> ready_{false};

  utils::Turn turn_;
  // Used by the holder of the turn.
  std::vector<std::shared_ptr<Camera>> cameras_;
  std::shared_ptr<Camera> main_camera_;
};

}  // namespace varnel::hal_adapter

#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "comms/comms_manager.h"
#include "hal_adapter/multimedia_adapter.h"
#include "utils/client_path.h"

namespace varnel::service {

/// The "camera." methods. Every handler runs on the JSON-RPC server's camera workers, several at
/// once.
class CameraService {
 public:
  /// Takes a photo with the main camera to a path; an empty path saves nothing. Callable from any
  /// thread.
  using TakePhoto = std::function<hal_adapter::PhotoStatus(const std::string& path)>;

  /// The manager and the policy must outlive the service.
  CameraService(comms::CommsManager& comms, TakePhoto take_photo,
                const utils::ClientPathPolicy& paths);

  /// Registers the methods; the manager keeps references to this object from then on.
  [[nodiscard]] comms::CommsStatus Start();

  nlohmann::json ReqCallbackCameraServiceTakePhoto(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceGetStatus(const nlohmann::json& params);

 private:
  nlohmann::json TakeDebugPhoto(const nlohmann::json& params);
  nlohmann::json TakePrintingPhoto() const;

  comms::CommsManager& comms_;
  const TakePhoto take_photo_;
  const utils::ClientPathPolicy& paths_;
};

}  // namespace varnel::service

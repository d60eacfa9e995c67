#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "comms/comms_manager.h"
#include "hal_adapter/photo_taker.h"
#include "service/camera/capture_detection.h"
#include "service/camera/monitor/monitor.h"
#include "service/camera/timelapse/films/timelapse_service.h"
#include "utils/client_path.h"

namespace varnel::service {

/// The "camera." methods. Every handler runs on the JSON-RPC server's camera workers, several at
/// once.
class CameraService {
 public:
  /// What the service is built from; the defaults are the board's.
  struct Setup {
    hal_adapter::PhotoTaker* camera = nullptr;  ///< must outlive the service, like the next
    const utils::ClientPathPolicy* paths = nullptr;
    TimelapsePaths timelapse_paths = {};
    EncoderPrograms encoder_programs = {};
    PrintAnalyser* analyser = nullptr;  ///< none: detections fail; must outlive the service
    std::string detection_picture = "/tmp/printer_detection.jpg";
    MonitorPaths monitor_paths = {};
    MonitorEncryptionSettings monitor_encryption = {};
    std::shared_ptr<FileUploader> uploader = std::make_shared<NoUploader>();
    std::function<std::string()> serial_number = [] { return std::string("--"); };
    utils::Clock* clock = &utils::SystemClock::Instance();
  };

  /// The manager must outlive the service.
  CameraService(comms::CommsManager& comms, Setup setup);

  /// Handles what an earlier run left, then registers the methods; the manager keeps references to
  /// this object from then on.
  comms::CommsStatus Start();

  /// For the process's end: monitoring ends, and has its pictures removed afterwards.
  void RequestEnd() { monitor_.RequestEnd(); }
  /// Passwords that are in use.
  void ForEachSecret(const std::function<void(std::string_view secret)>& visit) const {
    monitor_.ForEachSecret(visit);
  }
  void ClearPictures() const { monitor_.ClearFiles(); }

  nlohmann::json ReqCallbackCameraServiceTakePhoto(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceGetStatus(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceDetectCapture(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceStartMonitor(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceStopMonitor(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceStartTimelapse(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceStopTimelapse(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceGetTimelapseInstance(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceDeleteTimelapseInstance(const nlohmann::json& params);
  nlohmann::json ReqCallbackCameraServiceUploadTimelapseInstance(const nlohmann::json& params);

 private:
  nlohmann::json TakeDebugPhoto(const nlohmann::json& params);
  nlohmann::json TakePrintingPhoto();
  bool StartTimelapse(const std::string& type, const TimelapseSettings& settings);
  comms::CommsStatus Notify(const std::string& method, nlohmann::json params);
  void NotifyStatusChange(bool timelapse);
  void NotifyOfMonitor(const std::string& method, nlohmann::json params);

  comms::CommsManager& comms_;
  hal_adapter::PhotoTaker& camera_;
  const utils::ClientPathPolicy& paths_;
  utils::Clock& clock_;
  TimelapseService timelapses_;
  CaptureDetection detection_;
  Monitor monitor_;
};

}  // namespace varnel::service

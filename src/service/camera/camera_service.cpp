#include "service/camera/camera_service.h"

#include <array>
#include <optional>
#include <utility>

#include "comms/json_rpc_message.h"
#include "comms/log_payload.h"
#include "service/camera/camera_answers.h"
#include "service/camera/debug_photo.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using hal_adapter::PhotoStatus;
using nlohmann::json;

constexpr const char* kTag = kCameraTag;
constexpr const char* kTakePhoto = "camera.take_a_photo";
constexpr const char* kNotificationTopic = "camera/notification";
constexpr size_t kLoggedBytes = 1024;
constexpr uint32_t kFromCloud = 1;

void LogRequest(const json& params) {
  if (!spdlog::should_log(spdlog::level::debug)) return;
  VLOG_DEBUG(kTag, "Receive JSON-RPC message: {}", comms::LogJson(params, kLoggedBytes));
}

json PhotoAnswer(PhotoStatus status) {
  switch (status) {
    case PhotoStatus::kSuccess:
      return CameraSuccess();
    case PhotoStatus::kNotWritable:
      return MakeError(comms::RpcError::kInvalidRequest, "Invalid Request");
    case PhotoStatus::kCaptureFailed:
    case PhotoStatus::kConversionFailed:
      break;
  }
  return MakeError(comms::RpcError::kOperationFailed, "Take photo failed");
}

}  // namespace

CameraService::CameraService(comms::CommsManager& comms, Setup setup)
    : comms_(comms),
      camera_(*setup.camera),
      paths_(*setup.paths),
      clock_(*setup.clock),
      timelapses_(
          {.paths = std::move(setup.timelapse_paths),
           .programs = std::move(setup.encoder_programs),
           .camera = &camera_,
           .notify = [this](const std::string& method,
                            json params) { return comms::Code(Notify(method, std::move(params))); },
           .broker_answers = [this] { return comms_.IsLocalConnected(); },
           .uploader = setup.uploader,
           .clock = setup.clock}),
      detection_(camera_, setup.analyser, std::move(setup.detection_picture), *setup.clock),
      monitor_({.paths = std::move(setup.monitor_paths),
                .encryption = std::move(setup.monitor_encryption),
                .camera = &camera_,
                .uploader = std::move(setup.uploader),
                .serial_number = std::move(setup.serial_number),
                .notify = [this](const std::string& method,
                                 json params) { NotifyOfMonitor(method, std::move(params)); },
                .clock = setup.clock}) {}

comms::CommsStatus CameraService::Notify(const std::string& method, json params) {
  return comms_.SendNotification(kNotificationTopic, method, std::move(params));
}

comms::CommsStatus CameraService::Start() {
  using Handler = json (CameraService::*)(const json&);
  using Kind = comms::MethodKind;
  struct Method {
    const char* name;
    Kind kind;
    Handler handler;
    comms::AfterAnswer after = nullptr;
  };
  const auto tell_of = [this](bool timelapse) {
    return [this, timelapse](const json& answer) {
      if (answer == CameraSuccess()) NotifyStatusChange(timelapse);
    };
  };
  detection_.LogState();
  timelapses_.HandleUnfinished();
  using Service = CameraService;
  const std::array methods{
      Method{kTakePhoto, Kind::kPhoto, &Service::ReqCallbackCameraServiceTakePhoto},
      Method{"camera.get_status", Kind::kQuick, &Service::ReqCallbackCameraServiceGetStatus},
      Method{"camera.detect_capture", Kind::kDetection,
             &Service::ReqCallbackCameraServiceDetectCapture},
      Method{"camera.start_monitor", Kind::kNetwork,
             &Service::ReqCallbackCameraServiceStartMonitor},
      Method{"camera.stop_monitor", Kind::kQuick, &Service::ReqCallbackCameraServiceStopMonitor},
      Method{"camera.start_timelapse", Kind::kCommand,
             &Service::ReqCallbackCameraServiceStartTimelapse, tell_of(true)},
      Method{"camera.stop_timelapse", Kind::kCommand,
             &Service::ReqCallbackCameraServiceStopTimelapse, tell_of(false)},
      Method{"camera.get_timelapse_instance", Kind::kListing,
             &Service::ReqCallbackCameraServiceGetTimelapseInstance},
      Method{"camera.delete_timelapse_instance", Kind::kListing,
             &Service::ReqCallbackCameraServiceDeleteTimelapseInstance},
      Method{"camera.upload_timelapse_instance", Kind::kNetwork,
             &Service::ReqCallbackCameraServiceUploadTimelapseInstance},
  };
  for (const Method& method : methods) {
    const auto status = comms_.RegisterMethod(
        method.name, kFromCloud, method.kind,
        [this, handler = method.handler](const json& params) {
          LogRequest(params);
          return (this->*handler)(params);
        },
        method.after);
    if (status != comms::CommsStatus::kOk) return status;
  }
  VLOG_INFO(kTag, "Camera service initialized via CommsManager.");
  return comms::CommsStatus::kOk;
}

json CameraService::ReqCallbackCameraServiceTakePhoto(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kTakePhoto);
  if (!params.contains("reason"))
    return MakeError(comms::RpcError::kInvalidParams, "Missing required param: reason");
  if (!params["reason"].is_string()) return InvalidCameraParams(kTakePhoto);
  const std::string reason = params["reason"].get<std::string>();
  VLOG_INFO(kTag, "Take a photo, reason is {}", utils::LogText(reason));
  if (reason == "printing") return TakePrintingPhoto();
  if (reason == "debug") return TakeDebugPhoto(params);
  return MakeError(comms::RpcError::kInvalidRequest, "Invalid Request");
}

json CameraService::TakePrintingPhoto() {
  const std::optional<TimelapsePhoto> photo = timelapses_.TakePhoto();
  if (photo == TimelapsePhoto::kTaken) return CameraSuccess();
  if (photo == TimelapsePhoto::kFailed)
    return MakeError(comms::RpcError::kOperationFailed, "Take photo failed");
  VLOG_WARN(kTag, "Timelapse take photo: invalid operation.");
  return MakeError(comms::RpcError::kInvalidRequest, "Invalid operation");
}

json CameraService::TakeDebugPhoto(const json& params) {
  const std::optional<DebugPhotoRequest> request = ParseDebugPhoto(params);
  const std::optional<std::string> path = request ? DebugPhotoPath(*request) : std::nullopt;
  if (!path) return InvalidCameraParams(kTakePhoto);
  if (path->empty()) return PhotoAnswer(camera_.TakePhoto(std::string()));
  const std::optional<utils::FilePlace> place = paths_.Resolve(*path);
  if (!place) {
    VLOG_WARN(kTag, "Clients may not write to {}", utils::LogText(*path));
    return MakeError(comms::RpcError::kInvalidRequest, "Invalid Request");
  }
  return PhotoAnswer(camera_.TakePhoto(*place));
}

json CameraService::ReqCallbackCameraServiceGetStatus(const json&) {
  // The interface type is the product's, whichever camera is fitted.
  const MonitorDomains watched = monitor_.Domains();
  json status{{"state", "success"},
              {"interface_type", "MIPI"},
              {"monitoring", watched.Any()},
              {"timelapse", timelapses_.IsRunning()}};
  if (watched.Any()) status["monitor_domain"] = NameOf(watched.First());
  return status;
}

json CameraService::ReqCallbackCameraServiceDetectCapture(const json& params) {
  VLOG_INFO(kTag, "ReqCallbackCameraServiceDetectCapture: receive JSON-RPC message: {}",
            comms::LogJson(params, kLoggedBytes));
  return detection_.Detect(params);
}

}  // namespace varnel::service

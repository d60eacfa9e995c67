#include "service/camera/camera_service.h"

#include <array>
#include <optional>
#include <utility>

#include "comms/json_rpc_message.h"
#include "comms/log_payload.h"
#include "service/camera/debug_photo.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using hal_adapter::PhotoStatus;
using nlohmann::json;

constexpr const char* kTag = "CAMSRV";
constexpr const char* kTakePhoto = "camera.take_a_photo";
constexpr size_t kLoggedBytes = 1024;
constexpr uint32_t kFromCloud = 1;

json Success() {
  return json{{"state", "success"}};
}

void LogRequest(const json& params) {
  if (!spdlog::should_log(spdlog::level::debug)) return;
  VLOG_DEBUG(kTag, "Receive JSON-RPC message: {}", comms::LogJson(params, kLoggedBytes));
}

json InvalidParams(const char* method) {
  VLOG_ERROR(kTag, "method: {}, invalid parameter", method);
  return MakeError(comms::kInvalidParams, "Invalid params");
}

json PhotoAnswer(PhotoStatus status) {
  switch (status) {
    case PhotoStatus::kSuccess:
      return Success();
    case PhotoStatus::kNotWritable:
      return MakeError(comms::kInvalidRequest, "Invalid Request");
    case PhotoStatus::kCaptureFailed:
    case PhotoStatus::kConversionFailed:
      break;
  }
  return MakeError(comms::kOperationFailed, "Take photo failed");
}

}  // namespace

CameraService::CameraService(comms::CommsManager& comms, TakePhoto take_photo,
                             const utils::ClientPathPolicy& paths)
    : comms_(comms), take_photo_(std::move(take_photo)), paths_(paths) {}

comms::CommsStatus CameraService::Start() {
  using Handler = json (CameraService::*)(const json&);
  struct Method {
    const char* name;
    Handler handler;
  };
  const std::array methods{
      Method{kTakePhoto, &CameraService::ReqCallbackCameraServiceTakePhoto},
      Method{"camera.get_status", &CameraService::ReqCallbackCameraServiceGetStatus},
  };
  for (const Method& method : methods) {
    const auto status =
        comms_.RegisterMethod(method.name, kFromCloud, [this, method](const json& params) {
          LogRequest(params);
          return (this->*method.handler)(params);
        });
    if (status != comms::CommsStatus::kOk) return status;
  }
  VLOG_INFO(kTag, "Camera service initialized via CommsManager.");
  return comms::CommsStatus::kOk;
}

json CameraService::ReqCallbackCameraServiceTakePhoto(const json& params) {
  if (!params.is_object() && !params.is_null()) return InvalidParams(kTakePhoto);
  if (!params.contains("reason"))
    return MakeError(comms::kInvalidParams, "Missing required param: reason");
  if (!params["reason"].is_string()) return InvalidParams(kTakePhoto);
  const std::string reason = params["reason"].get<std::string>();
  VLOG_INFO(kTag, "Take a photo, reason is {}", utils::LogText(reason));
  if (reason == "printing") return TakePrintingPhoto();
  if (reason == "debug") return TakeDebugPhoto(params);
  return MakeError(comms::kInvalidRequest, "Invalid Request");
}

json CameraService::TakePrintingPhoto() const {
  VLOG_WARN(kTag, "Timelapse take photo: invalid operation.");
  return MakeError(comms::kInvalidRequest, "Invalid operation");
}

json CameraService::TakeDebugPhoto(const json& params) {
  const std::optional<DebugPhotoRequest> request = ParseDebugPhoto(params);
  const std::optional<std::string> path = request ? DebugPhotoPath(*request) : std::nullopt;
  if (!path) return InvalidParams(kTakePhoto);
  if (path->empty()) return PhotoAnswer(take_photo_(""));
  const std::optional<std::filesystem::path> target = paths_.Resolve(*path);
  if (!target) {
    VLOG_WARN(kTag, "Clients may not write to {}", utils::LogText(*path));
    return MakeError(comms::kInvalidRequest, "Invalid Request");
  }
  return PhotoAnswer(take_photo_(target->string()));
}

json CameraService::ReqCallbackCameraServiceGetStatus(const json&) {
  // The interface type is the product's, whichever camera is fitted.
  return json{{"state", "success"},
              {"interface_type", "MIPI"},
              {"monitoring", false},
              {"timelapse", false}};
}

}  // namespace varnel::service

// The methods of the camera service that start and stop monitoring.
#include <string>

#include "comms/json_rpc_message.h"
#include "service/camera/camera_answers.h"
#include "service/camera/camera_service.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using nlohmann::json;

constexpr const char* kTag = kCameraTag;
constexpr const char* kStart = "camera.start_monitor";
constexpr const char* kStop = "camera.stop_monitor";

bool IsDomain(const json& value) {
  return value == "wan" || value == "lan";
}

bool AreStartParams(const json& params) {
  const auto expect_pw = params.find("expect_pw");
  return IsDomain(params["domain"]) && params["interval"].is_number() &&
         (expect_pw == params.end() || expect_pw->is_boolean());
}

}  // namespace

json CameraService::ReqCallbackCameraServiceStartMonitor(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kStart);
  if (!HasAll(params, {"domain", "interval"})) {
    VLOG_ERROR(kTag, "miss domain or interval parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required params: domain, interval");
  }
  if (!AreStartParams(params)) return InvalidCameraParams(kStart);
  VLOG_INFO(kTag, "Start camera monitor, domain is {}, interval is {}, expect_pw is {}",
            params["domain"].get<std::string>(), params["interval"].dump(),
            params.value("expect_pw", false));
  return MakeError(comms::RpcError::kOperationFailed, "Start monitor failed");
}

json CameraService::ReqCallbackCameraServiceStopMonitor(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kStop);
  if (!HasAll(params, {"domain"})) {
    VLOG_ERROR(kTag, "miss domain parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required param: domain");
  }
  if (!IsDomain(params["domain"])) return InvalidCameraParams(kStop);
  VLOG_INFO(kTag, "Stop camera monitor, domain is {}", params["domain"].get<std::string>());
  return MakeError(comms::RpcError::kOperationFailed, "Stop monitor failed");
}

}  // namespace varnel::service

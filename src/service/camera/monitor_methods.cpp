// The methods of the camera service that start and stop monitoring.
#include <chrono>
#include <cmath>
#include <optional>
#include <string>

#include "comms/json_rpc_message.h"
#include "service/camera/camera_answers.h"
#include "service/camera/camera_service.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using nlohmann::json;

constexpr const char* kTag = kCameraTag;
constexpr const char* kStart = "camera.start_monitor";
constexpr const char* kStop = "camera.stop_monitor";
constexpr double kMaxIntervalS = 3600;

struct StartRequest {
  std::string domain;
  std::chrono::milliseconds interval;
  bool expect_password;
};

std::optional<StartRequest> ParseStart(const json& params) {
  const json& domain = params["domain"];
  const json& interval = params["interval"];
  const auto expect_pw = params.find("expect_pw");
  if (!domain.is_string() || !interval.is_number()) return std::nullopt;
  if (expect_pw != params.end() && !expect_pw->is_boolean()) return std::nullopt;
  const double seconds = interval.get<double>();
  if (!(seconds >= 0 && seconds <= kMaxIntervalS)) return std::nullopt;
  return StartRequest{domain.get<std::string>(),
                      std::chrono::milliseconds(std::lround(seconds * 1000)),
                      params.value("expect_pw", false)};
}

json AnswerOf(const StartRequest& request, const MonitorAccess& access) {
  json answer = CameraSuccess();
  if (request.domain == NameOf(MonitorDomain::kWan)) {
    VLOG_INFO(kTag, "URL for monitor file is {}", utils::LogText(utils::MaskUrl(access.url)));
    answer["url"] = access.url;
  }
  if (request.expect_password) {
    answer.update(
        {{"pw", access.password}, {"iterations", access.iterations}, {"salt", access.salt_hex}});
  }
  return answer;
}

}  // namespace

void CameraService::NotifyOfMonitor(const std::string& method, json params) {
  const comms::CommsStatus status = Notify(method, std::move(params));
  if (status != comms::CommsStatus::kOk)
    VLOG_ERROR(kTag, "Send camera monitoring notification failed, ret = {}", comms::Code(status));
}

json CameraService::ReqCallbackCameraServiceStartMonitor(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kStart);
  if (!HasAll(params, {"domain", "interval"})) {
    VLOG_ERROR(kTag, "miss domain or interval parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required params: domain, interval");
  }
  const auto request = ParseStart(params);
  if (!request) return InvalidCameraParams(kStart);
  VLOG_INFO(kTag, "Start camera monitor, domain is {}, interval is {}, expect_pw is {}",
            utils::LogText(request->domain), params["interval"].dump(), request->expect_password);
  const auto access = monitor_.Start(request->domain, request->interval);
  if (!access) return MakeError(comms::RpcError::kOperationFailed, "Start monitor failed");
  return AnswerOf(*request, *access);
}

json CameraService::ReqCallbackCameraServiceStopMonitor(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kStop);
  if (!HasAll(params, {"domain"})) {
    VLOG_ERROR(kTag, "miss domain parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required param: domain");
  }
  if (!params["domain"].is_string()) return InvalidCameraParams(kStop);
  const std::string domain = params["domain"].get<std::string>();
  VLOG_INFO(kTag, "Stop camera monitor, domain is {}", utils::LogText(domain));
  if (!monitor_.Stop(domain))
    return MakeError(comms::RpcError::kOperationFailed, "Stop monitor failed");
  return CameraSuccess();
}

}  // namespace varnel::service

// The methods of the camera service that deal with time-lapses.
#include <string>

#include "comms/json_rpc_message.h"
#include "service/camera/camera_answers.h"
#include "service/camera/camera_service.h"
#include "service/camera/timelapse_requests.h"
#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using hal_adapter::HalStatus;
using nlohmann::json;

constexpr const char* kTag = kCameraTag;
constexpr const char* kStart = "camera.start_timelapse";
constexpr const char* kList = "camera.get_timelapse_instance";
constexpr const char* kDelete = "camera.delete_timelapse_instance";
constexpr const char* kUpload = "camera.upload_timelapse_instance";

const char* MessageOf(HalStatus status) {
  switch (status) {
    case HalStatus::kFileNotFound:
      return "file not found";
    case HalStatus::kInvalidParameter:
      return "instance is not exists";
    case HalStatus::kFileFormatError:
      return "file format error";
    default:
      return "internal error";
  }
}

json AnswerOf(HalStatus status) {
  if (status == HalStatus::kSuccess) return CameraSuccess();
  return {{"state", "failed"}, {"message", MessageOf(status)}};
}

}  // namespace

void CameraService::NotifyStatusChange(bool timelapse) {
  constexpr const char* kMethod = "notify_camera_status_change";
  const comms::CommsStatus status =
      Notify(kMethod, {{"timelapse", timelapse},
                       {"timestamp", utils::LocalTimeText(clock_.WallNow())},
                       {"state", "success"}});
  if (status != comms::CommsStatus::kOk)
    VLOG_ERROR(kTag, "Send {} error, ret = {}", kMethod, comms::Code(status));
}

bool CameraService::StartTimelapse(const std::string& type, const TimelapseSettings& settings) {
  return type == "new" ? timelapses_.StartNew(settings) : timelapses_.Continue();
}

json CameraService::ReqCallbackCameraServiceStartTimelapse(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kStart);
  if (!HasAll(params, {"mode", "frame_rate"})) {
    VLOG_ERROR(kTag, "miss mode or frame_rate parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required params: mode, frame_rate");
  }
  const auto given_type = params.find("type");
  if (given_type != params.end() && !given_type->is_string()) return InvalidCameraParams(kStart);
  const std::string type = given_type == params.end() ? "new" : given_type->get<std::string>();
  const auto settings = ParseTimelapseStart(params);
  if (!settings) return InvalidCameraParams(kStart);
  if (type != "new" && type != "continue") {
    VLOG_ERROR(kTag, "Start timelapse: unsupported type {}", utils::LogText(type));
    return MakeError(comms::RpcError::kInvalidRequest, "Unsupported type: " + type);
  }
  if (!StartTimelapse(type, *settings)) {
    VLOG_ERROR(kTag, "Start timelapse failed.");
    return MakeError(comms::RpcError::kInvalidRequest, "start timelapse failed");
  }
  VLOG_INFO(kTag, "Start time-lapse photography successed.");
  return CameraSuccess();
}

json CameraService::ReqCallbackCameraServiceStopTimelapse(const json&) {
  switch (timelapses_.Stop()) {
    case TimelapseService::StopResult::kStopped:
      break;
    case TimelapseService::StopResult::kNothingRuns:
      VLOG_ERROR(kTag, "Stop time-lapse photography: invalid operation.");
      return MakeError(comms::RpcError::kInvalidRequest, "Invalid operation");
    case TimelapseService::StopResult::kRefused:
      VLOG_ERROR(kTag, "Stop time-lapse photography failed.");
      return MakeError(comms::RpcError::kInvalidRequest, "Stop time-lapse photography failed");
  }
  VLOG_INFO(kTag, "Stop time-lapse photography successed.");
  return CameraSuccess();
}

json CameraService::ReqCallbackCameraServiceGetTimelapseInstance(const json& params) {
  const auto query = ParseTimelapseQuery(params);
  if (!query) return InvalidCameraParams(kList);
  if (query->all) VLOG_INFO(kTag, "method: {}, no params, use default.", kList);
  VLOG_INFO(kTag, "method: {} params: get all flag is {}, page_index is {} page_rows is {}.", kList,
            query->all, query->page_index, query->page_rows);
  auto answer = timelapses_.Store().List(*query);
  if (!answer) return AnswerOf(HalStatus::kFailure);
  (*answer)["state"] = "success";
  return std::move(*answer);
}

json CameraService::ReqCallbackCameraServiceDeleteTimelapseInstance(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kDelete);
  if (!HasAll(params, {"date_index"})) {
    VLOG_ERROR(kTag, "Miss date_index parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required param: date_index");
  }
  if (!params["date_index"].is_string()) return InvalidCameraParams(kDelete);
  const std::string index = params["date_index"].get<std::string>();
  VLOG_INFO(kTag, "The index of the instance to be deleted is {}", utils::LogText(index));
  return AnswerOf(timelapses_.Delete(index));
}

json CameraService::ReqCallbackCameraServiceUploadTimelapseInstance(const json& params) {
  if (!AreCameraParams(params)) return InvalidCameraParams(kUpload);
  if (!HasAll(params, {"date_index", "type"})) {
    VLOG_ERROR(kTag, "Miss date_index or type parameter.");
    return MakeError(comms::RpcError::kInvalidParams, "Missing required params: date_index, type");
  }
  if (!params["date_index"].is_string() || !params["type"].is_string())
    return InvalidCameraParams(kUpload);
  const std::string index = params["date_index"].get<std::string>();
  const std::string type = params["type"].get<std::string>();
  VLOG_INFO(kTag, "The index of the instance to be uploaded is {}, type is {}",
            utils::LogText(index), utils::LogText(type));
  const auto film = timelapses_.Upload(index, type);
  if (!film) return AnswerOf(film.Why());
  json answer = AnswerOf(HalStatus::kSuccess);
  answer.update({{"url", film->url},
                 {"pw", film->password},
                 {"iterations", film->iterations},
                 {"salt", film->salt_hex}});
  return answer;
}

}  // namespace varnel::service

#include "service/camera/capture_detection.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "comms/json_rpc_message.h"
#include "service/camera/camera_answers.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kCameraTag;
constexpr const char* kMethod = "camera.detect_capture";
constexpr const char* kTakePhotoFailed = "Take photo failed";
constexpr int kNoAnalyser = -7;
constexpr const char* kNoAnalyserMessage = "printer analysis module not ready";
/// As long as a photo waits for the camera.
constexpr std::chrono::seconds kMaxWait{10};

json Failure(const std::string& reason) {
  VLOG_ERROR(kTag, "ReqCallbackCameraServiceDetectCapture failed with reason: {}", reason);
  return comms::MakeError(comms::RpcError::kOperationFailed, reason);
}

json Failure(const std::string& reason, int code) {
  json error = Failure(reason);
  error["data"] = {{"err_code", code}};
  return error;
}

bool IsText(const json& value) {
  return value.is_string();
}

bool IsInt32(const json& value) {
  using Limits = std::numeric_limits<int32_t>;
  if (!value.is_number()) return false;
  const double number = value.get<double>();
  return number >= Limits::min() && number <= Limits::max();
}

bool IsTextList(const json& value) {
  return value.is_null() || (value.is_array() && std::all_of(value.begin(), value.end(), IsText));
}

bool IsNumber(const json& value) {
  return value.is_number();
}

/// Absent is right, too.
bool Fits(const json& object, const std::string& name, bool (*type)(const json&)) {
  const auto found = object.find(name);
  return found == object.end() || type(*found);
}

bool IsLabelObject(const json& value) {
  return value.is_object() && Fits(value, "threshold", IsNumber);
}

bool FitLabelObjects(const json& params) {
  if (!params.contains("labels")) return true;
  const json& labels = params["labels"];
  return std::all_of(labels.begin(), labels.end(), [&params](const json& label) {
    return Fits(params, label.get<std::string>(), IsLabelObject);
  });
}

}  // namespace

bool AreDetectionParams(const json& params) {
  if (params.is_null()) return true;
  return params.is_object() && Fits(params, "labels", IsTextList) &&
         Fits(params, "detect_status", IsText) && Fits(params, "z_position", IsInt32) &&
         FitLabelObjects(params);
}

CaptureDetection::CaptureDetection(hal_adapter::PhotoTaker& camera, PrintAnalyser* analyser,
                                   std::string picture, utils::Clock& clock)
    : camera_(camera), analyser_(analyser), picture_(std::move(picture)), turn_(clock) {}

void CaptureDetection::LogState() const {
  VLOG_INFO(kTag, "PrinterAnalysis: printer detector created with status: {}",
            analyser_ != nullptr && analyser_->Ready() ? "ready" : "unready");
}

json CaptureDetection::Detect(const json& params) {
  if (analyser_ == nullptr) {
    VLOG_ERROR(kTag, "ReqCallbackCameraServiceDetectCapture: printer_analysis not created");
    return Failure(kNoAnalyserMessage, kNoAnalyser);
  }
  if (!AreDetectionParams(params)) return InvalidCameraParams(kMethod);
  const utils::Turn::Holder turn(turn_, kMaxWait);
  if (!turn) VLOG_WARN(kTag, "Earlier detections are still running after 10s");
  if (!turn || camera_.TakePhoto(picture_) != hal_adapter::PhotoStatus::kSuccess)
    return Failure(kTakePhotoFailed);
  PrintAnalyser::Answer answer = analyser_->Detect(picture_, params);
  if (answer.code != 0) return Failure(answer.message, answer.code);
  return std::move(answer.data);
}

}  // namespace varnel::service

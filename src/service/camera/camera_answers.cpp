#include "service/camera/camera_answers.h"

#include <algorithm>

#include "comms/json_rpc_message.h"
#include "utils/log.h"

namespace varnel::service {

using nlohmann::json;

json CameraSuccess() {
  return json{{"state", "success"}};
}

json InvalidCameraParams(const char* method) {
  VLOG_ERROR(kCameraTag, "method: {}, invalid parameter", method);
  return comms::MakeError(comms::RpcError::kInvalidParams, "Invalid params");
}

bool AreCameraParams(const json& params) {
  return params.is_object() || params.is_null();
}

bool HasAll(const json& params, std::initializer_list<const char*> names) {
  return std::all_of(names.begin(), names.end(),
                     [&params](const char* name) { return params.contains(name); });
}

}  // namespace varnel::service

#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>

namespace varnel::service {

inline constexpr const char* kCameraTag = "CAMSRV";

/// {"state": "success"}
[[nodiscard]] nlohmann::json CameraSuccess();

/// The error of a parameter with a wrong type or value, with its log line.
[[nodiscard]] nlohmann::json InvalidCameraParams(const char* method);

/// Whether params is an object, or absent where an empty one does.
[[nodiscard]] bool AreCameraParams(const nlohmann::json& params);

/// Whether every one of these members is there.
[[nodiscard]] bool HasAll(const nlohmann::json& params, std::initializer_list<const char*> names);

}  // namespace varnel::service

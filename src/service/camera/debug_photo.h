#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace varnel::service {

/// What a client asks for when it takes a photo for itself.
struct DebugPhotoRequest {
  int64_t timestamp = 0;  ///< seconds since the epoch; 0: the name as it is
  std::string filepath;   ///< empty: nothing is saved
};

/// Reads the params; nothing when a member has the wrong type or does not fit.
std::optional<DebugPhotoRequest> ParseDebugPhoto(const nlohmann::json& params);

/// "<stem>_<local time as %Y%m%d%H%M%S><extension>" for a non-zero time stamp, the path itself
/// otherwise. Nothing for a time outside the years 1 to 9999.
std::optional<std::string> DebugPhotoPath(const DebugPhotoRequest& request);

}  // namespace varnel::service

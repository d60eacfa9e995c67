#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "service/camera/timelapse/disk/timelapse_paths.h"

namespace varnel::service {

/// Links a film for local clients. Failures are logged; links whose film is missing are not made.
/// @param replace links that are there too
void MakeFilmLinks(const TimelapsePaths& paths, const nlohmann::json& record, bool replace);
void RemoveFilmLinks(const TimelapsePaths& paths, const std::string& index);

}  // namespace varnel::service

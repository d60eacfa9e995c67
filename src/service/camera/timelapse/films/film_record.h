#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "service/camera/timelapse/disk/work_directory.h"

namespace varnel::service {

/// The record of a film for "timelapse.json".
/// @param made_s when it was made, in seconds since the epoch
[[nodiscard]] nlohmann::json FilmRecord(const WorkDirectory& directory,
                                        const std::filesystem::path& video,
                                        const std::string& duration, int64_t made_s);
/// What clients are told of it.
[[nodiscard]] nlohmann::json FilmNotice(const nlohmann::json& record);

}  // namespace varnel::service

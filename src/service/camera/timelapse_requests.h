#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "service/camera/timelapse/disk/film_store.h"
#include "service/camera/timelapse/disk/timelapse_settings.h"

namespace varnel::service {

/// Nothing when a member has the wrong type or value. "mode" and "frame_rate" must be there.
[[nodiscard]] std::optional<TimelapseSettings> ParseTimelapseStart(const nlohmann::json& params);

/// What to list; absent, null or {} asks for all. Nothing when a member has the wrong type or
/// value.
[[nodiscard]] std::optional<TimelapseQuery> ParseTimelapseQuery(const nlohmann::json& params);

}  // namespace varnel::service

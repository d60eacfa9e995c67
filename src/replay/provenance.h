#pragma once

#include <nlohmann/json.hpp>

#include "replay/command_line.h"
#include "replay/picture_judge.h"
#include "replay/replay.h"

namespace varnel::service {
class RknnLibrary;
}  // namespace varnel::service

namespace varnel::replay {

/// The beginning of report.json: what was judged, by what, when. Reads networks, runtime and
/// program once; throws when one of them cannot be read.
/// @param judge without a problem
[[nodiscard]] nlohmann::ordered_json HeadJson(const Options& options, const Input& input,
                                              const PictureJudge& judge,
                                              const service::RknnLibrary& library);

}  // namespace varnel::replay

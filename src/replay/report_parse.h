#pragma once

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "replay/scoring.h"
#include "replay/totals.h"

namespace varnel::replay {

/// Reads a report.json, picture by picture, so that one of any size needs little memory.
/// @param picture gets each element of "pictures"
/// @return the other members. Throws std::runtime_error when the file cannot be read or is no
/// whole report.
[[nodiscard]] nlohmann::ordered_json ReadReport(
    const std::filesystem::path& file,
    const std::function<void(const nlohmann::ordered_json&)>& picture);

// What report_json wrote, back again; nlohmann::json::exception when it is something else.

/// Without the times, which are with the pictures.
[[nodiscard]] Totals ParseTotals(const nlohmann::ordered_json& totals, const Algorithm& algorithm);
/// @param report all members that are not "pictures"
[[nodiscard]] Scoring ParseScoring(const nlohmann::ordered_json& report,
                                   const Algorithm& algorithm);

}  // namespace varnel::replay

#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/picture_judge.h"
#include "replay/picture_set.h"
#include "replay/scores.h"
#include "replay/scoring.h"

namespace varnel::replay {

/// The parts of report.json. What has no value is null.
[[nodiscard]] nlohmann::ordered_json PictureJson(const Judgement& judgement,
                                                 const std::vector<std::string>& classes);
[[nodiscard]] nlohmann::ordered_json ThresholdsJson(const std::map<std::string, float>& thresholds);
[[nodiscard]] nlohmann::ordered_json PictureListJson(const PictureList& list);
[[nodiscard]] nlohmann::ordered_json SkippedJson(const std::vector<SkippedFile>& skipped);
[[nodiscard]] nlohmann::ordered_json TotalsJson(const Totals& totals,
                                                const std::vector<std::string>& classes);
/// The members that tell how the judgements fit the labels.
[[nodiscard]] nlohmann::ordered_json ScoringJson(const Scoring& scoring);

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

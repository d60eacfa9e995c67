#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/judgement.h"
#include "replay/picture_folder.h"
#include "replay/scoring.h"
#include "replay/totals.h"

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

}  // namespace varnel::replay

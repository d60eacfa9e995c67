#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/evaluation.h"
#include "replay/judgement.h"
#include "replay/totals.h"

namespace varnel::replay {

/// The parts of report.json. What has no value is null.
[[nodiscard]] nlohmann::ordered_json PictureJson(const Judgement& judgement,
                                                 const std::vector<std::string>& classes);
[[nodiscard]] nlohmann::ordered_json ThresholdsJson(const std::map<std::string, float>& thresholds);
[[nodiscard]] nlohmann::ordered_json TotalsJson(const Totals& totals,
                                                const std::vector<std::string>& classes);
/// @param which the network's or the algorithm's confusion of `evaluation`
[[nodiscard]] nlohmann::ordered_json ScoresJson(const Evaluation& evaluation,
                                                const Confusion& which);
[[nodiscard]] nlohmann::ordered_json SweepJson(const Evaluation& evaluation);

}  // namespace varnel::replay

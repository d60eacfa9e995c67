#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/scoring.h"
#include "replay/totals.h"

namespace varnel::replay {

/// Pictures, reasons, finds and times.
[[nodiscard]] std::string TotalsText(const Totals& totals, const std::vector<std::string>& classes);
/// How many files of the folder were skipped and why; empty without any.
/// @param skipped of report.json
[[nodiscard]] std::string SkippedText(const nlohmann::ordered_json& skipped);
/// Scores and confusion, the sweeps, and what was left out.
[[nodiscard]] std::string ScoringText(const Scoring& scoring);

}  // namespace varnel::replay

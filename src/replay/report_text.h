#pragma once

#include <string>
#include <vector>

#include "replay/evaluation.h"
#include "replay/totals.h"

namespace varnel::replay {

/// Pictures, reasons, finds and times.
[[nodiscard]] std::string TotalsText(const Totals& totals, const std::vector<std::string>& classes);
/// Scores and confusion, the sweep, and what was left out.
[[nodiscard]] std::string EvaluationText(const Evaluation& evaluation);

}  // namespace varnel::replay

#pragma once

#include <map>
#include <string>
#include <vector>

#include "replay/sweep.h"

namespace varnel::replay {

/// A plot with a title: recall (solid) and precision (dashed) of each class over the threshold, as
/// an SVG picture that follows the light or dark colours of who looks at it. A dotted line marks
/// the threshold in use.
[[nodiscard]] std::string SweepPlot(const std::string& title, const Sweep& sweep,
                                    const std::vector<std::string>& classes,
                                    const std::map<std::string, float>& thresholds);

}  // namespace varnel::replay

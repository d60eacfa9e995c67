#pragma once

#include <optional>
#include <span>
#include <vector>

#include "replay/box.h"

namespace varnel::replay {

/// From this overlap on a prediction means an object.
inline constexpr double kMatchingIou = 0.5;

/// For each prediction the object that it means, as an index; nothing for a false alarm.
using Matches = std::vector<std::optional<size_t>>;

/// The most probable prediction chooses first, the object that it overlaps most; an object is
/// chosen once. Only objects of the prediction's own class are looked at.
[[nodiscard]] Matches MatchWithinClasses(std::span<const Truth> truths,
                                         std::span<const Prediction> predictions);

/// The same, and then what is left on both sides once more whatever its class: a find that is in
/// the right place under a wrong name.
[[nodiscard]] Matches MatchAcrossClasses(std::span<const Truth> truths,
                                         std::span<const Prediction> predictions);

}  // namespace varnel::replay

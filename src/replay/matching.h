#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "service/analysis/picture/rect.h"

namespace varnel::replay {

/// Edges in pixels; labels know parts of them.
using Box = service::BasicRect<double>;

/// Shared area by common area; 0 for boxes without area.
[[nodiscard]] double Iou(const Box& a, const Box& b);

/// What a picture really shows.
struct Truth {
  size_t cls = 0;
  Box box;
};

/// What a network says it shows.
struct Prediction {
  size_t cls = 0;
  float probability = 0;
  Box box;
};

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

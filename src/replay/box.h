#pragma once

#include <cstddef>

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

}  // namespace varnel::replay

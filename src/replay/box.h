#pragma once

#include <cstddef>

namespace varnel::replay {

/// Edges in pixels; right and bottom are outside.
struct Box {
  double left = 0;
  double top = 0;
  double right = 0;
  double bottom = 0;
};

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

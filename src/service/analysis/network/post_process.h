#pragma once

#include <cstdint>
#include <span>

#include "service/analysis/network/detection.h"
#include "service/analysis/picture/letterbox.h"

namespace varnel::service {

/// The outputs of a network on one grid. Value k of the cell in a row and a column is at
/// (k * grid_h + row) * grid_w + column.
struct OutputBranch {
  std::span<const float> boxes;   ///< 4 * dfl_len values a cell: left, top, right, bottom
  std::span<const float> scores;  ///< one value a cell for every class
  int32_t dfl_len = 0;            ///< length of the distribution that tells one distance
  int32_t grid_h = 0;
  int32_t grid_w = 0;
};

/// What turns outputs into boxes of the picture.
struct PostProcessing {
  int32_t width = 0;   ///< of the network's input
  int32_t height = 0;  ///< of the network's input
  LetterBox letterbox;
  std::span<const float> thresholds;  ///< one a class: the score that a box must exceed
  float nms_threshold = 0;            ///< overlap above which the weaker box of a class is dropped
};

/// Decodes boxes, drops those that overlap a better one of their class and writes the best of the
/// others, best first; of equal scores the earlier branch, row and column is the better one.
///
/// A score counts when it exceeds the threshold of its own class; the best of a cell decides.
/// Scores and boxes that are not finite are none. Distances are expectations over the softmax of
/// their `dfl_len` values, in grid cells from the centre of the cell.
/// @return 0, or -1 when a branch is smaller than its shape says; `found` is empty then
[[nodiscard]] int post_process(std::span<const OutputBranch> branches,
                               const PostProcessing& processing, DetectionList& found);

}  // namespace varnel::service

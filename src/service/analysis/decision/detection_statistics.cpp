#include "service/analysis/decision/detection_statistics.h"

#include <algorithm>

namespace varnel::service {
namespace {

/// What a network that is no good may call a probability must still fit into an integer.
constexpr float kMaxFigure = 100000.0F;

/// In single precision, in which probabilities come: 0.9 stays 0.9 instead of 0.8999.
double CutToFourDecimals(double value) {
  const float figure = std::clamp(static_cast<float>(value), -kMaxFigure, kMaxFigure);
  return static_cast<int>(figure * 10000.0F) / 10000.0;
}

double Mixed(double ratio, double own, double before) {
  return ratio * own + (1 - ratio) * before;
}

}  // namespace

void ClassTotals::Add(const Detection& result) {
  const Rect& box = result.box;
  const double own = Area(box);
  const double ratio = area + own > 0 ? own / (area + own) : 1;
  ++count;
  area += own;
  centre_x = Mixed(ratio, (double{1} * box.left + box.right) / 2, centre_x);
  centre_y = Mixed(ratio, (double{1} * box.top + box.bottom) / 2, centre_y);
  highest_prob = std::max(highest_prob, static_cast<double>(result.prop));
  weighted_prob = Mixed(ratio, static_cast<double>(result.prop), weighted_prob);
}

void DetectionHistory::Clear() {
  records_ = 0;
  std::fill(totals_.begin(), totals_.end(), ClassTotals{});
}

void DetectionHistory::Add(const DetectionList& found) {
  ++records_;
  for (const Detection& result : Results(found)) {
    const auto id = static_cast<size_t>(result.cls_id);
    if (result.flag == 0 && result.cls_id >= 0 && id < totals_.size()) totals_[id].Add(result);
  }
}

nlohmann::json ClassStatistics(const ClassTotals& totals, int32_t picture_width,
                               int32_t picture_height) {
  const double share = totals.area / (double{1} * picture_width * picture_height + 0.1);
  return {{"obj_cnts", totals.count},
          {"obj_areas", CutToFourDecimals(std::min(share, 1.0))},
          {"obj_probs", CutToFourDecimals(totals.highest_prob)},
          {"obj_weighted_probs", CutToFourDecimals(totals.weighted_prob)}};
}

}  // namespace varnel::service

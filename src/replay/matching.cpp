#include "replay/matching.h"

#include <algorithm>
#include <numeric>

namespace varnel::replay {

namespace {

class Matcher {
 public:
  Matcher(std::span<const Truth> truths, std::span<const Prediction> predictions)
      : truths_(truths),
        predictions_(predictions),
        order_(predictions.size()),
        taken_(truths.size()),
        matches_(predictions.size()) {
    std::iota(order_.begin(), order_.end(), size_t{0});
    std::stable_sort(order_.begin(), order_.end(), [&](size_t a, size_t b) {
      return predictions[a].probability > predictions[b].probability;
    });
  }

  /// One round over what is not matched yet.
  void Match(bool within_class) {
    for (const size_t i : order_) {
      if (matches_[i]) continue;
      matches_[i] = Closest(predictions_[i], within_class);
      if (matches_[i]) taken_[*matches_[i]] = true;
    }
  }

  Matches Take() { return std::move(matches_); }

 private:
  [[nodiscard]] std::optional<size_t> Closest(const Prediction& prediction,
                                              bool within_class) const {
    std::optional<size_t> closest;
    double most = 0;
    for (size_t i = 0; i < truths_.size(); ++i) {
      if (taken_[i] || (within_class && truths_[i].cls != prediction.cls)) continue;
      const double overlap = Iou(truths_[i].box, prediction.box);
      if (overlap < kMatchingIou || overlap <= most) continue;
      closest = i;
      most = overlap;
    }
    return closest;
  }

  std::span<const Truth> truths_;
  std::span<const Prediction> predictions_;
  std::vector<size_t> order_;  ///< of the predictions, most probable first
  std::vector<bool> taken_;
  Matches matches_;
};

}  // namespace

double Iou(const Box& a, const Box& b) {
  const double shared = Area(Intersection(a, b));
  const double common = Area(a) + Area(b) - shared;
  return common > 0 ? shared / common : 0;
}

Matches MatchWithinClasses(std::span<const Truth> truths, std::span<const Prediction> predictions) {
  Matcher matcher(truths, predictions);
  matcher.Match(true);
  return matcher.Take();
}

Matches MatchAcrossClasses(std::span<const Truth> truths, std::span<const Prediction> predictions) {
  Matcher matcher(truths, predictions);
  matcher.Match(true);
  matcher.Match(false);
  return matcher.Take();
}

}  // namespace varnel::replay

#include "replay/sweep.h"

#include "replay/matching.h"

namespace varnel::replay {

void Sweep::Add(std::span<const Truth> truths, std::span<const Prediction> candidates) {
  for (const Truth& truth : truths) ++classes_[truth.cls].objects;
  const Matches matches = MatchWithinClasses(truths, candidates);
  for (size_t i = 0; i < candidates.size(); ++i) {
    Counts& counts = classes_[candidates[i].cls];
    std::vector<int64_t>& kind = matches[i] ? counts.hits : counts.false_alarms;
    for (size_t step = 0; step < kSteps && candidates[i].probability > Threshold(step); ++step)
      ++kind[step];
  }
}

void Sweep::AddByValue(std::span<const Truth> truths, std::span<const Prediction> predictions,
                       std::span<const std::optional<float>> values) {
  for (const Truth& truth : truths) ++classes_[truth.cls].objects;
  for (size_t step = 0; step < kSteps; ++step) {
    std::vector<Prediction> left;
    for (size_t i = 0; i < predictions.size(); ++i)
      if (!values[i] || *values[i] >= Threshold(step)) left.push_back(predictions[i]);
    const Matches matches = MatchWithinClasses(truths, left);
    for (size_t i = 0; i < left.size(); ++i) {
      Counts& counts = classes_[left[i].cls];
      ++(matches[i] ? counts.hits : counts.false_alarms)[step];
    }
  }
}

void Sweep::Add(const Sweep& other) {
  for (size_t cls = 0; cls < classes_.size(); ++cls) {
    Counts& counts = classes_[cls];
    const Counts& more = other.classes_[cls];
    counts.objects += more.objects;
    for (size_t step = 0; step < kSteps; ++step) {
      counts.hits[step] += more.hits[step];
      counts.false_alarms[step] += more.false_alarms[step];
    }
  }
}

Scores Sweep::At(size_t cls, size_t step) const {
  const Counts& counts = classes_[cls];
  return {counts.hits[step], counts.false_alarms[step], counts.objects - counts.hits[step]};
}

std::optional<Sweep::Range> Sweep::Best(size_t cls) const {
  std::optional<Range> best;
  double highest = -1;
  for (size_t step = 0; step < kSteps; ++step) {
    const std::optional<double> f1 = At(cls, step).F1();
    if (f1 && *f1 > highest) {
      best = Range{step, step};
      highest = *f1;
    } else if (f1 == highest && best->last + 1 == step) {
      best->last = step;
    }
  }
  return best;
}

}  // namespace varnel::replay

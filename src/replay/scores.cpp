#include "replay/scores.h"

#include "replay/matching.h"

namespace varnel::replay {
namespace {

std::optional<double> Quotient(int64_t part, int64_t whole) {
  if (whole == 0) return std::nullopt;
  return static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace

std::optional<double> Scores::Precision() const {
  return Quotient(hits, hits + false_alarms);
}

std::optional<double> Scores::Recall() const {
  return Quotient(hits, hits + misses);
}

std::optional<double> Scores::F1() const {
  return Quotient(2 * hits, 2 * hits + false_alarms + misses);
}

Confusion::Confusion(size_t classes)
    : classes_(classes), counts_((classes + 1) * (classes + 1), 0) {}

void Confusion::Add(std::span<const Truth> truths, std::span<const Prediction> predictions) {
  const Matches matches = MatchAcrossClasses(truths, predictions);
  std::vector<bool> found(truths.size());
  for (size_t i = 0; i < predictions.size(); ++i) {
    const size_t truth = matches[i] ? truths[*matches[i]].cls : Background();
    if (matches[i]) found[*matches[i]] = true;
    ++At(truth, predictions[i].cls);
  }
  for (size_t i = 0; i < truths.size(); ++i) {
    if (!found[i]) ++At(truths[i].cls, Background());
  }
}

void Confusion::Add(const Confusion& other) {
  for (size_t i = 0; i < counts_.size(); ++i) counts_[i] += other.counts_[i];
}

Scores Confusion::Of(size_t cls) const {
  Scores scores;
  scores.hits = Count(cls, cls);
  for (size_t other = 0; other <= classes_; ++other) {
    if (other == cls) continue;
    scores.false_alarms += Count(other, cls);
    scores.misses += Count(cls, other);
  }
  return scores;
}

}  // namespace varnel::replay

#include "replay/scores.h"

#include <algorithm>
#include <numeric>

#include "replay/matching.h"

namespace varnel::replay {

namespace {

std::optional<double> Quotient(int64_t part, int64_t whole) {
  if (whole == 0) return std::nullopt;
  return static_cast<double>(part) / static_cast<double>(whole);
}

void AddCounts(std::map<std::string, int64_t>& counts, const std::map<std::string, int64_t>& more) {
  for (const auto& [key, count] : more) counts[key] += count;
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

void Totals::Add(const Judgement& judgement) {
  if (!judgement.Judged()) {
    ++failures[judgement.message];
    return;
  }
  ++judged;
  if (!judgement.annotated) ++not_annotated;
  times.push_back(judgement.milliseconds);
  for (const Find& find : judgement.finds) {
    OfClass& cls = classes[find.prediction.cls];
    ++cls.found;
    if (find.Stands()) ++cls.stands;
    if (const char* reason = ReasonText(find.reason); reason != nullptr) ++cls.reasons[reason];
  }
}

void Totals::Add(const Totals& other) {
  judged += other.judged;
  not_annotated += other.not_annotated;
  AddCounts(failures, other.failures);
  for (size_t i = 0; i < classes.size(); ++i) {
    classes[i].found += other.classes[i].found;
    classes[i].stands += other.classes[i].stands;
    AddCounts(classes[i].reasons, other.classes[i].reasons);
  }
  times.insert(times.end(), other.times.begin(), other.times.end());
}

int64_t Totals::Failed() const {
  int64_t failed = 0;
  for (const auto& [reason, count] : failures) failed += count;
  return failed;
}

double Totals::MeanTime() const {
  if (times.empty()) return 0;
  return std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(times.size());
}

double Totals::MedianTime() const {
  if (times.empty()) return 0;
  std::vector<double> sorted = times;
  const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
  std::nth_element(sorted.begin(), middle, sorted.end());
  return *middle;
}

double Totals::LongestTime() const {
  return times.empty() ? 0 : *std::max_element(times.begin(), times.end());
}

}  // namespace varnel::replay

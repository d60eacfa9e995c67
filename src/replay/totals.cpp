#include "replay/totals.h"

#include <algorithm>
#include <numeric>

namespace varnel::replay {

void Totals::Add(const Judgement& judgement) {
  if (!judgement.Judged()) {
    ++failures_[judgement.message];
    return;
  }
  ++judged_;
  if (!judgement.annotated) ++not_annotated_;
  times_.push_back(judgement.milliseconds);
  for (const Find& find : judgement.finds) {
    OfClass& cls = classes_[find.prediction.cls];
    ++cls.found;
    if (find.stands) ++cls.stands;
  }
}

int64_t Totals::Failed() const {
  int64_t failed = 0;
  for (const auto& [reason, count] : failures_) failed += count;
  return failed;
}

double Totals::MeanTime() const {
  if (times_.empty()) return 0;
  return std::accumulate(times_.begin(), times_.end(), 0.0) / static_cast<double>(times_.size());
}

double Totals::MedianTime() const {
  if (times_.empty()) return 0;
  std::vector<double> sorted = times_;
  const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
  std::nth_element(sorted.begin(), middle, sorted.end());
  return *middle;
}

double Totals::LongestTime() const {
  return times_.empty() ? 0 : *std::max_element(times_.begin(), times_.end());
}

}  // namespace varnel::replay

#include "replay/totals.h"

#include <algorithm>
#include <numeric>

namespace varnel::replay {
namespace {

void AddCounts(std::map<std::string, int64_t>& counts, const std::map<std::string, int64_t>& more) {
  for (const auto& [key, count] : more) counts[key] += count;
}

}  // namespace

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

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/analysis/network/detection.h"

namespace varnel::service {

/// Everything that was counted of one class, as running totals: the same figures as a list of all
/// pictures gives, in constant memory however long a print lasts.
///
/// Each result moves centre and weighted probability by its share of the area so far:
///   ratio = area / (accumulated area + area)
///   value = ratio * the result's own + (1 - ratio) * value before
/// so large objects weigh more, and the first gives its own value. A result without area counts,
/// and weighs only as long as nothing else does.
struct ClassTotals {
  int64_t count = 0;
  double area = 0;  ///< pixels
  double centre_x = 0;
  double centre_y = 0;
  double highest_prob = 0;
  double weighted_prob = 0;

  void Add(const Detection& result);
};

/// What was found since a print began.
class DetectionHistory {
 public:
  /// @param classes how many class ids are counted; others are skipped
  explicit DetectionHistory(size_t classes) : totals_(classes) {}

  void Clear();
  /// One more picture; results with a flag are not counted.
  void Add(const DetectionList& found);
  /// Pictures since the last Clear().
  [[nodiscard]] size_t Size() const { return records_; }
  [[nodiscard]] const std::vector<ClassTotals>& Totals() const { return totals_; }

 private:
  size_t records_ = 0;
  std::vector<ClassTotals> totals_;
};

/// "obj_cnts", "obj_areas" (share of the picture, at most 1), "obj_probs" and "obj_weighted_probs",
/// the last three cut to four decimals.
[[nodiscard]] nlohmann::json ClassStatistics(const ClassTotals& totals, int32_t picture_width,
                                             int32_t picture_height);

}  // namespace varnel::service

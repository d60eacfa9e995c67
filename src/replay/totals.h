#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "replay/judgement.h"

namespace varnel::replay {

/// What all judgements come to.
struct Totals {
  struct OfClass {
    int64_t found = 0;
    int64_t stands = 0;  ///< after verification, sizes and the reference picture
    std::map<std::string, int64_t> reasons;  ///< why finds are flagged
  };

  explicit Totals(size_t of_classes) : classes(of_classes) {}

  void Add(const Judgement& judgement);
  /// The totals of other pictures, by the same classes.
  void Add(const Totals& other);

  [[nodiscard]] int64_t Failed() const;
  /// Of the judged pictures, in milliseconds; 0 without any.
  [[nodiscard]] double MeanTime() const;
  [[nodiscard]] double MedianTime() const;
  [[nodiscard]] double LongestTime() const;

  int64_t judged = 0;
  std::map<std::string, int64_t> failures;  ///< pictures that were not judged, by the reason
  int64_t not_annotated = 0;  ///< pictures that were judged and have no annotated picture
  std::vector<OfClass> classes;
  std::vector<double> times;  ///< of the judged pictures, in milliseconds
};

}  // namespace varnel::replay

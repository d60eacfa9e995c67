#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "replay/judgement.h"

namespace varnel::replay {

/// What all judgements come to.
class Totals {
 public:
  struct OfClass {
    int64_t found = 0;
    int64_t stands = 0;  ///< after verification, sizes and the reference picture
  };

  explicit Totals(size_t classes) : classes_(classes) {}

  void Add(const Judgement& judgement);

  [[nodiscard]] int64_t Judged() const { return judged_; }
  /// Pictures that were not judged, by the reason.
  [[nodiscard]] const std::map<std::string, int64_t>& Failures() const { return failures_; }
  [[nodiscard]] int64_t Failed() const;
  /// Pictures that were judged and have no annotated picture.
  [[nodiscard]] int64_t NotAnnotated() const { return not_annotated_; }
  [[nodiscard]] const std::vector<OfClass>& Classes() const { return classes_; }

  /// Of the judged pictures, in milliseconds; 0 without any.
  [[nodiscard]] double MeanTime() const;
  [[nodiscard]] double MedianTime() const;
  [[nodiscard]] double LongestTime() const;

 private:
  int64_t judged_ = 0;
  int64_t not_annotated_ = 0;
  std::map<std::string, int64_t> failures_;
  std::vector<OfClass> classes_;
  std::vector<double> times_;
};

}  // namespace varnel::replay

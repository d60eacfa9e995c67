#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "replay/matching.h"
#include "replay/picture_judge.h"

namespace varnel::replay {

/// How finds and objects of a class fit together. A quotient by nothing has no value.
struct Scores {
  int64_t hits = 0;
  int64_t false_alarms = 0;
  int64_t misses = 0;

  /// Hits of all finds.
  [[nodiscard]] std::optional<double> Precision() const;
  /// Hits of all objects.
  [[nodiscard]] std::optional<double> Recall() const;
  /// The harmonic mean of both.
  [[nodiscard]] std::optional<double> F1() const;
};

/// Which classes are taken for which, over any number of pictures.
class Confusion {
 public:
  explicit Confusion(size_t classes);

  /// One more picture; classes of both lists must be below Classes().
  void Add(std::span<const Truth> truths, std::span<const Prediction> predictions);

  /// The same of other pictures.
  void Add(const Confusion& other);
  void Set(size_t truth, size_t found, int64_t count) { At(truth, found) = count; }

  [[nodiscard]] size_t Classes() const { return classes_; }
  /// Stands for "nothing there" on both sides.
  [[nodiscard]] size_t Background() const { return classes_; }
  /// How many objects of one class were found as another.
  [[nodiscard]] int64_t Count(size_t truth, size_t found) const {
    return counts_[truth * (classes_ + 1) + found];
  }
  [[nodiscard]] Scores Of(size_t cls) const;

 private:
  int64_t& At(size_t truth, size_t found) { return counts_[truth * (classes_ + 1) + found]; }

  size_t classes_;
  std::vector<int64_t> counts_;
};

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

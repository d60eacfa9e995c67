#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "replay/box.h"

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

}  // namespace varnel::replay

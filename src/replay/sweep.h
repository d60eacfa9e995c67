#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "replay/matching.h"
#include "replay/scores.h"

namespace varnel::replay {

/// How well a network does at thresholds from 0.05 to 0.95, from one run of it with the lowest.
/// Cutting by score afterwards is the same as running it with the higher threshold: only more
/// probable boxes of the same class drop a box, and only they choose an object before it.
class Sweep {
 public:
  static constexpr size_t kSteps = 19;
  /// A score must exceed it.
  [[nodiscard]] static constexpr float Threshold(size_t step) {
    return static_cast<float>(static_cast<double>(step + 1) / 20);
  }

  explicit Sweep(size_t classes) : classes_(classes) {}

  /// One more picture; classes of both lists must be below that of the constructor.
  void Add(std::span<const Truth> truths, std::span<const Prediction> candidates);

  /// One more picture of a sweep over another value than the probability, which still says who
  /// chooses first: each step is matched by itself.
  /// @param values one for each prediction: from this threshold on it counts; nothing: always
  void AddByValue(std::span<const Truth> truths, std::span<const Prediction> predictions,
                  std::span<const std::optional<float>> values);
  /// What a sweep over other pictures counted.
  void Add(const Sweep& other);

  /// The figures of one class at all steps.
  struct Counts {
    std::vector<int64_t> hits = std::vector<int64_t>(kSteps);
    std::vector<int64_t> false_alarms = std::vector<int64_t>(kSteps);
    int64_t objects = 0;
  };
  [[nodiscard]] const Counts& Of(size_t cls) const { return classes_[cls]; }
  void Set(size_t cls, Counts counts) { classes_[cls] = std::move(counts); }

  [[nodiscard]] Scores At(size_t cls, size_t step) const;
  struct Range {
    size_t first = 0;
    size_t last = 0;
  };
  /// The steps with the highest F1, from the lowest as far as they follow each other; nothing for a
  /// class that was neither there nor found.
  [[nodiscard]] std::optional<Range> Best(size_t cls) const;

 private:
  std::vector<Counts> classes_;
};

/// A plot with a title: recall (solid) and precision (dashed) of each class over the threshold, as
/// an SVG picture that follows the light or dark colours of who looks at it. A dotted line marks
/// the threshold in use.
[[nodiscard]] std::string SweepPlot(const std::string& title, const Sweep& sweep,
                                    const std::vector<std::string>& classes,
                                    const std::map<std::string, float>& thresholds);

}  // namespace varnel::replay

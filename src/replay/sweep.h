#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "replay/box.h"
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

  [[nodiscard]] Scores At(size_t cls, size_t step) const;
  struct Range {
    size_t first = 0;
    size_t last = 0;
  };
  /// The steps with the highest F1, from the lowest as far as they follow each other; nothing for a
  /// class that was neither there nor found.
  [[nodiscard]] std::optional<Range> Best(size_t cls) const;

 private:
  struct Counts {
    std::vector<int64_t> hits = std::vector<int64_t>(kSteps);
    std::vector<int64_t> false_alarms = std::vector<int64_t>(kSteps);
    int64_t objects = 0;
  };
  std::vector<Counts> classes_;
};

}  // namespace varnel::replay

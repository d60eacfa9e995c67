#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "replay/judgement.h"
#include "replay/labels.h"
#include "replay/scores.h"
#include "replay/sweep.h"

namespace varnel::replay {

/// Compares judgements with what people saw. Pictures that were not judged are left out.
class Evaluation {
 public:
  /// @param classes the labels of the network, in the order of its classes
  Evaluation(const std::vector<std::string>& classes, Labels labels);

  void Add(const Judgement& judgement);

  [[nodiscard]] const std::vector<std::string>& Classes() const { return classes_; }
  /// What the network found at its thresholds.
  [[nodiscard]] const Confusion& Network() const { return network_; }
  /// What the algorithm left of it.
  [[nodiscard]] const Confusion& Decision() const { return decision_; }
  [[nodiscard]] const Sweep& NetworkSweep() const { return sweep_; }
  /// Pictures whose sweep may lack the least probable candidates.
  [[nodiscard]] int64_t PicturesCut() const { return pictures_cut_; }
  /// How many objects have labels that the network does not know, in the pictures that were judged.
  [[nodiscard]] const std::map<std::string, int64_t>& OtherLabels() const { return other_labels_; }
  /// Labelled pictures that were never judged.
  [[nodiscard]] std::vector<std::string> Unseen() const;

 private:
  std::vector<Truth> TakeTruths(const std::string& picture);

  const std::vector<std::string> classes_;
  Labels labels_;  ///< of the pictures that are still to come
  Confusion network_;
  Confusion decision_;
  Sweep sweep_;
  int64_t pictures_cut_ = 0;
  std::map<std::string, int64_t> other_labels_;
};

}  // namespace varnel::replay

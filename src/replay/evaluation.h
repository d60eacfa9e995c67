#pragma once

#include <string>
#include <vector>

#include "replay/picture_judge.h"
#include "replay/picture_set.h"
#include "replay/scoring.h"

namespace varnel::replay {

/// Compares judgements with what people saw. Pictures that were not judged are left out.
class Evaluation {
 public:
  Evaluation(const Algorithm& algorithm, Labels labels);

  void Add(const Judgement& judgement);

  /// Of all that was added; what is labelled otherwise is unseen.
  [[nodiscard]] Scoring Result() const;

 private:
  std::vector<Truth> TakeTruths(const std::string& picture);
  void AddDecision(const std::vector<Truth>& truths, const std::vector<Find>& finds);
  void AddVerification(const std::vector<Truth>& truths, const std::vector<Find>& finds);

  Labels labels_;  ///< of the pictures that are still to come
  Scoring scoring_;
};

}  // namespace varnel::replay

#include "replay/evaluation.h"

#include <algorithm>
#include <utility>

namespace varnel::replay {
namespace {

std::vector<Prediction> PredictionsOf(const std::vector<Find>& finds, bool all) {
  std::vector<Prediction> predictions;
  for (const Find& find : finds)
    if (all || find.stands) predictions.push_back(find.prediction);
  return predictions;
}

}  // namespace

Evaluation::Evaluation(const std::vector<std::string>& classes, Labels labels)
    : classes_(classes),
      labels_(std::move(labels)),
      network_(classes.size()),
      decision_(classes.size()),
      sweep_(classes.size()) {}

void Evaluation::Add(const Judgement& judgement) {
  if (!judgement.Judged()) return;
  const std::vector<Truth> truths = TakeTruths(judgement.picture);
  network_.Add(truths, PredictionsOf(judgement.finds, true));
  decision_.Add(truths, PredictionsOf(judgement.finds, false));
  sweep_.Add(truths, judgement.candidates);
  if (judgement.candidates_full) ++pictures_cut_;
}

std::vector<Truth> Evaluation::TakeTruths(const std::string& picture) {
  std::vector<Truth> truths;
  const auto node = labels_.extract(picture);
  if (node.empty()) return truths;
  for (const LabelledObject& object : node.mapped()) {
    const auto cls = std::find(classes_.begin(), classes_.end(), object.label);
    if (cls == classes_.end()) {
      ++other_labels_[object.label];
    } else {
      truths.push_back({static_cast<size_t>(cls - classes_.begin()), object.box});
    }
  }
  return truths;
}

std::vector<std::string> Evaluation::Unseen() const {
  std::vector<std::string> names;
  for (const auto& [picture, objects] : labels_) names.push_back(picture);
  return names;
}

}  // namespace varnel::replay

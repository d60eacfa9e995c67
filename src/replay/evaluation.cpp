#include "replay/evaluation.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "replay/matching.h"

namespace varnel::replay {
namespace {

template <class Wanted>
std::vector<Prediction> PredictionsOf(const std::vector<Find>& finds, Wanted wanted) {
  std::vector<Prediction> predictions;
  for (const Find& find : finds)
    if (wanted(find)) predictions.push_back(find.prediction);
  return predictions;
}

/// Splits the objects that finds of their class mean from the others.
std::vector<Truth> TakeMeant(std::vector<Truth>& truths, const std::vector<Prediction>& finds) {
  std::vector<bool> meant(truths.size());
  for (const std::optional<size_t>& match : MatchWithinClasses(truths, finds))
    if (match) meant[*match] = true;
  std::vector<Truth> taken;
  std::vector<Truth> left;
  for (size_t i = 0; i < truths.size(); ++i) (meant[i] ? taken : left).push_back(truths[i]);
  truths = std::move(left);
  return taken;
}

}  // namespace

Evaluation::Evaluation(const Algorithm& algorithm, Labels labels)
    : labels_(std::move(labels)), scoring_(algorithm) {}

void Evaluation::Add(const Judgement& judgement) {
  if (!judgement.Judged()) return;
  const std::vector<Truth> truths = TakeTruths(judgement.picture);
  scoring_.network.Add(truths, PredictionsOf(judgement.finds, [](const Find&) { return true; }));
  AddDecision(truths, judgement.finds);
  scoring_.sweep.Add(truths, judgement.candidates);
  AddVerification(truths, judgement.finds);
  if (judgement.candidates_full) ++scoring_.pictures_cut;
}

/// A find that stands means its object before one that is explained does.
void Evaluation::AddDecision(const std::vector<Truth>& truths, const std::vector<Find>& finds) {
  const auto standing = PredictionsOf(finds, [](const Find& find) { return find.Stands(); });
  const auto explained =
      PredictionsOf(finds, [](const Find& find) { return find.reason == Reason::kThereBefore; });
  std::vector<Truth> left = truths;
  std::vector<Truth> counted = TakeMeant(left, standing);
  for (const Truth& truth : TakeMeant(left, explained)) ++scoring_.explained[truth.cls];
  counted.insert(counted.end(), left.begin(), left.end());
  scoring_.decision.Add(counted, standing);
}

void Evaluation::AddVerification(const std::vector<Truth>& truths, const std::vector<Find>& finds) {
  if (!scoring_.verify_sweep) return;
  std::vector<std::optional<float>> values;
  values.reserve(finds.size());
  for (const Find& find : finds) values.push_back(find.verified);
  const auto all = PredictionsOf(finds, [](const Find&) { return true; });
  scoring_.verify_sweep->AddByValue(truths, all, values);
}

std::vector<Truth> Evaluation::TakeTruths(const std::string& picture) {
  const auto& classes = scoring_.classes;
  std::vector<Truth> truths;
  const auto node = labels_.extract(picture);
  if (node.empty()) return truths;
  for (const LabelledObject& object : node.mapped()) {
    const auto cls = std::find(classes.begin(), classes.end(), object.label);
    if (cls == classes.end()) {
      ++scoring_.other_labels[object.label];
    } else {
      truths.push_back({static_cast<size_t>(cls - classes.begin()), object.box});
    }
  }
  return truths;
}

Scoring Evaluation::Result() const {
  Scoring result = scoring_;
  for (const auto& [picture, objects] : labels_) result.unseen.insert(picture);
  return result;
}

}  // namespace varnel::replay

#include "replay/scoring.h"

namespace varnel::replay {

Scoring::Scoring(const Algorithm& algorithm)
    : classes(algorithm.labels),
      network(classes.size()),
      decision(classes.size()),
      explained(classes.size()),
      sweep(classes.size()) {
  if (!algorithm.verifier.empty()) verify_sweep.emplace(classes.size());
}

void Scoring::Add(const Scoring& other) {
  network.Add(other.network);
  decision.Add(other.decision);
  for (size_t cls = 0; cls < classes.size(); ++cls) explained[cls] += other.explained[cls];
  sweep.Add(other.sweep);
  if (verify_sweep && other.verify_sweep) verify_sweep->Add(*other.verify_sweep);
  pictures_cut += other.pictures_cut;
  for (const auto& [label, count] : other.other_labels) other_labels[label] += count;
  unseen.insert(other.unseen.begin(), other.unseen.end());
}

}  // namespace varnel::replay

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "replay/algorithm.h"
#include "replay/scores.h"
#include "replay/sweep.h"

namespace varnel::replay {

/// How judgements fit what people saw, over any number of pictures.
struct Scoring {
  explicit Scoring(const Algorithm& algorithm);

  /// The scoring of other pictures by the same algorithm.
  void Add(const Scoring& other);

  std::vector<std::string> classes;  ///< the network's labels
  Confusion network;                 ///< what it found at its thresholds
  Confusion decision;                ///< what the algorithm left of it, without explained objects
  /// Objects of each class that were found and that the reference picture explains: neither hit nor
  /// miss.
  std::vector<int64_t> explained;
  Sweep sweep;  ///< the network at other thresholds
  /// Network and verification at other thresholds of the latter; nothing without one. The reference
  /// picture has no part in it.
  std::optional<Sweep> verify_sweep;
  int64_t pictures_cut = 0;  ///< pictures whose sweep may lack the least probable candidates
  /// How many objects have labels that the network does not know, in the pictures that were judged.
  std::map<std::string, int64_t> other_labels;
  std::set<std::string> unseen;  ///< labelled pictures that were never judged
};

}  // namespace varnel::replay

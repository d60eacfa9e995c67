#include "replay/algorithm.h"

#include <algorithm>
#include <array>

#include "service/analysis/decision/algorithm_labels.h"

namespace varnel::replay {

const Algorithm* FindAlgorithm(std::string_view name) {
  static const std::array<Algorithm, 2> kAlgorithms{{
      {"noodle", service::kNoodleLabels, service::kNoodleVerifyLabel},
      {"beditem", service::kBedItemLabels, ""},
  }};
  const auto* found = std::find_if(kAlgorithms.begin(), kAlgorithms.end(),
                                   [&](const Algorithm& one) { return one.name == name; });
  return found == kAlgorithms.end() ? nullptr : found;
}

}  // namespace varnel::replay

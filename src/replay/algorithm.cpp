#include "replay/algorithm.h"

#include <algorithm>
#include <array>

namespace varnel::replay {

const Algorithm* FindAlgorithm(std::string_view name) {
  static const std::array<Algorithm, 2> kAlgorithms{{
      {"noodle", {"noodle"}, "verify_noodle"},
      {"beditem", {"item", "nozzle", "legend_text", "extrusion_line"}, ""},
  }};
  const auto* found = std::find_if(kAlgorithms.begin(), kAlgorithms.end(),
                                   [&](const Algorithm& one) { return one.name == name; });
  return found == kAlgorithms.end() ? nullptr : found;
}

}  // namespace varnel::replay

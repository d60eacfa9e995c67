#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace varnel::replay {

/// One of the print analysis' algorithms as it is asked for.
struct Algorithm {
  std::string name;                 ///< on the command line
  std::vector<std::string> labels;  ///< those of a request, and of the classes of its network
  std::string verifier;             ///< label of the network that verifies; empty without one
};

/// Null when there is none of this name.
[[nodiscard]] const Algorithm* FindAlgorithm(std::string_view name);

}  // namespace varnel::replay

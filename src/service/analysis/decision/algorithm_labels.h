#pragma once

#include <string>
#include <vector>

namespace varnel::service {

// What a request asks each algorithm for, in the order of its network's classes.
inline const std::vector<std::string> kNoodleLabels{"noodle"};
inline const std::vector<std::string> kBedItemLabels{"item", "nozzle", "legend_text",
                                                     "extrusion_line"};
inline const std::vector<std::string> kWrapHeadLabels{"wraphead"};
/// The network that verifies what the noodle algorithm finds.
inline constexpr const char* kNoodleVerifyLabel = "verify_noodle";

}  // namespace varnel::service

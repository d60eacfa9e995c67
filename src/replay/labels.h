#pragma once

#include <istream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "replay/box.h"

namespace varnel::replay {

struct LabelledObject {
  std::string label;
  Box box;
};

/// What people saw in the pictures, by picture name. A picture that is not in it shows nothing.
using Labels = std::map<std::string, std::vector<LabelledObject>>;

/// Reads one JSON object a line, {"picture": name, "label": text, "box": [left, top, right,
/// bottom]}; other members and empty lines are skipped.
/// @param error of the first bad line, with its number
[[nodiscard]] std::optional<Labels> ReadLabels(std::istream& lines, std::string& error);

}  // namespace varnel::replay

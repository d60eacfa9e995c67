#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "virtual_board/chart/image.h"

namespace varnel::board {

using SceneColour = std::array<uint8_t, 3>;

/// The colour in which the networks of the virtual board know a class: "noodle", "item", "nozzle",
/// "legend_text", "extrusion_line"; "lookalike" is found as a noodle and rejected by the verifying
/// network. Throws std::invalid_argument for other names.
SceneColour ColourOf(const std::string& name);

/// A plain bed with plain rectangles on it, later ones over earlier ones. As JSON, everything but
/// the box of an object may be left out:
/// Sides are even.
///
///     {"width": 1920, "height": 1080, "bed": [128, 128, 128],
///      "objects": [{"class": "noodle", "box": [100, 200, 400, 500]},
///                  {"colour": [90, 90, 90], "box": [0, 0, 50, 50]}]}
struct Scene {
  struct Object {
    SceneColour colour{};
    std::array<int, 4> box{};  ///< left, top, right, bottom; the last two are outside
  };
  uint32_t width = 1920;
  uint32_t height = 1080;
  SceneColour bed = {128, 128, 128};
  std::vector<Object> objects;

  /// Throws an exception of nlohmann::json, or std::invalid_argument.
  static Scene Parse(const nlohmann::json& json);
};

/// Parts of objects outside of the picture are cut off.
Image DrawScene(const Scene& scene);

}  // namespace varnel::board

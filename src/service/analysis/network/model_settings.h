#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace varnel::service {

/// The settings of one model, read once from its object in the configuration.
struct ModelSettings {
  /// Reads strictly: a value of a wrong type throws nlohmann::json::type_error.
  [[nodiscard]] static ModelSettings Read(const nlohmann::json& config);

  std::string file_name;  ///< empty: the model can never be used
  std::vector<std::string> labels;
  std::vector<std::string> positive_labels;  ///< whose pictures are kept apart
  std::vector<float> thresholds;             ///< by label: the score that a result must exceed
  float nms_threshold = 0;                   ///< overlap above which the weaker box goes
  bool is_default = false;                   ///< serves requests without labels
  bool preload = false;                      ///< comes to the NPU at the start
  bool saves_originals = false;
  size_t picture_limit = 0;   ///< pictures that are kept in each result directory
  int32_t class_index = -1;   ///< of a classifying network: the value that counts
  float class_threshold = 0;  ///< that this value must reach
};

/// The "threshold" in the object under the label's name, cut to 0..1, where scores lie; otherwise
/// the fallback.
[[nodiscard]] float LabelThreshold(const nlohmann::json& object, const std::string& label,
                                   float fallback);

}  // namespace varnel::service

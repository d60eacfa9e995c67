#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "service/analysis/network/model_settings.h"

namespace varnel::service {

/// What a detection is asked for. A value of a wrong type counts as absent.
struct DetectRequest {
  explicit DetectRequest(const nlohmann::json& params);

  [[nodiscard]] bool First() const { return status == "first"; }
  [[nodiscard]] bool Last() const { return status == "last"; }
  /// The score that a result of each label must exceed: the model's own, unless the request's
  /// object under the label's name holds a "threshold".
  [[nodiscard]] std::vector<float> Thresholds(const ModelSettings& model) const;

  nlohmann::json params;  ///< an object
  std::vector<std::string> labels;
  std::string status;  ///< "first", "last" or anything else
  int32_t z_position = 0;
};

/// "|noodle|item" for log lines, whatever the labels are.
[[nodiscard]] std::string JoinedLabels(const std::vector<std::string>& labels);

}  // namespace varnel::service

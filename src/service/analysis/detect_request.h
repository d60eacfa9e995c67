#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace varnel::service {

/// What a detection is asked for. A value of a wrong type counts as absent.
struct DetectRequest {
  explicit DetectRequest(const nlohmann::json& params);

  [[nodiscard]] bool First() const { return status == "first"; }
  [[nodiscard]] bool Last() const { return status == "last"; }
  /// The score that a result of this label must exceed: the request's own object under the label's
  /// name may hold a "threshold".
  [[nodiscard]] float Threshold(const std::string& label, float fallback) const;

  nlohmann::json params;  ///< an object
  nlohmann::json labels;  ///< an array of texts, or null
  std::string status;     ///< "first", "last" or anything else
  int32_t z_position = 0;
};

/// The "threshold" in the object under the label's name, cut to 0..1, where scores lie; otherwise
/// the fallback.
[[nodiscard]] float LabelThreshold(const nlohmann::json& object, const std::string& label,
                                   float fallback);

/// An array of texts as it stands; anything else is empty.
[[nodiscard]] std::vector<std::string> TextList(const nlohmann::json& array);

/// "|noodle|item" for log lines, whatever the labels are.
[[nodiscard]] std::string JoinedLabels(const nlohmann::json& labels);

}  // namespace varnel::service

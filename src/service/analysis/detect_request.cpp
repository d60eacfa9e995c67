#include "service/analysis/detect_request.h"

#include <algorithm>
#include <limits>

#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

const json& Member(const json& object, const std::string& name) {
  static const json kAbsent;
  const auto found = object.find(name);
  return found == object.end() ? kAbsent : *found;
}

bool IsTextArray(const json& value) {
  return value.is_array() &&
         std::all_of(value.begin(), value.end(), [](const json& text) { return text.is_string(); });
}

int32_t HeightOf(const json& value) {
  if (!value.is_number()) return 0;
  using Limits = std::numeric_limits<int32_t>;
  const double number = value.get<double>();  // text cannot hold a NaN
  return static_cast<int32_t>(
      std::clamp(number, static_cast<double>(Limits::min()), static_cast<double>(Limits::max())));
}

}  // namespace

DetectRequest::DetectRequest(const json& given)
    : params(given.is_object() ? given : json::object()) {
  if (const json& list = Member(params, "labels"); IsTextArray(list)) labels = list;
  if (const json& text = Member(params, "detect_status"); text.is_string())
    status = text.get<std::string>();
  z_position = HeightOf(Member(params, "z_position"));
}

float DetectRequest::Threshold(const std::string& label, float fallback) const {
  return LabelThreshold(params, label, fallback);
}

float LabelThreshold(const json& object, const std::string& label, float fallback) {
  const json& settings = Member(object, label);
  if (!settings.is_object()) return fallback;
  const json& threshold = Member(settings, "threshold");
  if (!threshold.is_number()) return fallback;
  // One is allowed, though no score can exceed it: the class then yields nothing.
  return static_cast<float>(std::clamp(threshold.get<double>(), 0.0, 1.0));
}

std::vector<std::string> TextList(const json& array) {
  if (!IsTextArray(array)) return {};
  return array.get<std::vector<std::string>>();
}

std::string JoinedLabels(const json& labels) {
  std::string joined;
  for (const std::string& label : TextList(labels)) joined += "|" + label;
  return utils::LogText(joined);
}

}  // namespace varnel::service

#include "service/analysis/decision/detect_request.h"

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

/// An array of texts as it stands; anything else is empty.
std::vector<std::string> TextList(const json& value) {
  const auto is_text = [](const json& text) { return text.is_string(); };
  if (!value.is_array() || !std::all_of(value.begin(), value.end(), is_text)) return {};
  return value.get<std::vector<std::string>>();
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
  labels = TextList(Member(params, "labels"));
  if (const json& text = Member(params, "detect_status"); text.is_string())
    status = text.get<std::string>();
  z_position = HeightOf(Member(params, "z_position"));
}

std::vector<float> DetectRequest::Thresholds(const ModelSettings& model) const {
  std::vector<float> thresholds;
  thresholds.reserve(model.labels.size());
  for (size_t i = 0; i < model.labels.size(); ++i)
    thresholds.push_back(LabelThreshold(params, model.labels[i], model.thresholds[i]));
  return thresholds;
}

std::string JoinedLabels(const std::vector<std::string>& labels) {
  std::string joined;
  for (const std::string& label : labels) joined += "|" + label;
  return utils::LogText(joined);
}

}  // namespace varnel::service

#include "service/analysis/network/model_settings.h"

#include <algorithm>

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr float kDefaultThreshold = 0.83F;
constexpr float kDefaultNms = 0.45F;

std::vector<std::string> TextsOf(const json& config, const char* key) {
  return config.value(key, std::vector<std::string>{});
}

std::vector<float> ThresholdsOf(const json& config, const std::vector<std::string>& labels) {
  const float common = config.value("box_conf_threshold", kDefaultThreshold);
  std::vector<float> thresholds;
  thresholds.reserve(labels.size());
  for (const std::string& label : labels)
    thresholds.push_back(LabelThreshold(config, label, common));
  return thresholds;
}

float ClassThresholdOf(const json& config) {
  const auto threshold = config.value("cls_conf_threshold", 0.0F);
  return threshold > 0 ? threshold : kDefaultThreshold;
}

}  // namespace

ModelSettings ModelSettings::Read(const json& config) {
  ModelSettings settings;
  settings.file_name = config.value("fname", std::string());
  settings.labels = TextsOf(config, "labels");
  settings.positive_labels = TextsOf(config, "save_pic_of_positive_labels");
  settings.thresholds = ThresholdsOf(config, settings.labels);
  settings.nms_threshold = config.value("nms_threshold", kDefaultNms);
  settings.is_default = config.value("is_default", false);
  settings.preload = config.value("preload", false);
  settings.saves_originals = config.value("save_orignal_pic", 0) != 0;
  settings.picture_limit = static_cast<size_t>(std::max(config.value("max_detect_pic_cnt", 0), 0));
  settings.class_index = config.value("cls_label_idx", -1);
  settings.class_threshold = ClassThresholdOf(config);
  return settings;
}

float LabelThreshold(const json& object, const std::string& label, float fallback) {
  const auto settings = object.find(label);
  if (settings == object.end() || !settings->is_object()) return fallback;
  const auto threshold = settings->find("threshold");
  if (threshold == settings->end() || !threshold->is_number()) return fallback;
  // One is allowed, though no score can exceed it: the class then yields nothing.
  return static_cast<float>(std::clamp(threshold->get<double>(), 0.0, 1.0));
}

}  // namespace varnel::service

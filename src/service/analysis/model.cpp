#include "service/analysis/model.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "service/analysis/analysis_log.h"
#include "service/analysis/analysis_result.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kAnalysisTag;
constexpr float kDefaultThreshold = 0.83F;
constexpr float kDefaultNms = 0.45F;

std::vector<std::string> TextsOf(const json& config, const char* key) {
  return config.value(key, std::vector<std::string>{});
}

/// What detecting networks find is named by the labels; of a classifying one a single value counts.
NetworkUse UseOf(const json& config, NetworkKind kind, size_t labels) {
  if (kind == NetworkKind::kDetecting) return {kind, labels};
  return {kind, static_cast<size_t>(std::max(config.value("cls_label_idx", -1), 0)) + 1};
}

}  // namespace

Model::Model(const char* name, json config, const Npu& npu, NetworkKind kind)
    : config_(std::move(config)),
      labels_(TextsOf(config_, "labels")),
      positive_labels_(TextsOf(config_, "save_pic_of_positive_labels")),
      use_(UseOf(config_, kind, labels_.size())),
      context_(npu) {
  VLOG_INFO(kTag, "construct model {}", name);
  if (!config_.value("fname", std::string()).empty()) return;
  VLOG_ERROR(kTag, "file name of model {} is empty or missing", name);
  state_ = ModelState::kBroken;
}

Model::~Model() = default;

size_t Model::PictureLimit() const {
  return static_cast<size_t>(std::max(config_.value("max_detect_pic_cnt", 0), 0));
}

const std::string& Model::LabelOf(int32_t cls_id) const {
  static const std::string kUnknown = "unknown";
  if (cls_id < 0 || static_cast<size_t>(cls_id) >= labels_.size()) return kUnknown;
  return labels_[static_cast<size_t>(cls_id)];
}

bool Model::EnsureLoaded(const std::filesystem::path& directory) {
  if (state_ != ModelState::kCreated) return state_ == ModelState::kLoaded;
  if (directory.empty()) {
    VLOG_ERROR(kTag, "model base directory is empty");
    return false;
  }
  const std::string path = (directory / config_.value("fname", std::string())).string();
  std::error_code error;
  if (!std::filesystem::exists(path, error)) {
    VLOG_ERROR(kTag, "init fail! model file not exists ! model_path={}", path);
    return false;
  }
  const auto start = context_.npu.thread.Now();
  const int code = init_yolo11_model(path, use_, context_);
  if (code != 0) {
    VLOG_ERROR(kTag, "init_yolo11_model fail! error code={} name={} model_path={}", code, Name(),
               path);
    return false;
  }
  state_ = ModelState::kLoaded;
  const auto time = context_.npu.thread.Now() - start;
  VLOG_INFO(kTag, "network {} loaded in {} ms: {}", Name(),
            std::chrono::duration_cast<std::chrono::milliseconds>(time).count(),
            Description(*context_.network));
  return true;
}

void Model::Release() {
  if (state_ != ModelState::kLoaded) return;
  VLOG_INFO(kTag, "model release name: {}", Name());
  const int code = release_yolo11_model(context_);
  if (code != 0) VLOG_ERROR(kTag, "release_yolo11_model fail! name {} ret={}\n", Name(), code);
  state_ = ModelState::kCreated;
}

int Model::Detect(const ImageBuffer& picture, const DetectRequest& request, DetectionList& found) {
  const std::vector<float> thresholds = Thresholds(request);
  const int code = inference_yolo11_model(context_, picture, found, thresholds,
                                          config_.value("nms_threshold", kDefaultNms));
  if (code == 0) return 0;
  VLOG_ERROR(kTag, "inference_yolo11_model fail! ret={}", code);
  Release();
  return kAnalysisInferenceFailed;
}

int Model::Classify(const ImageBuffer& picture, std::vector<float>& values) {
  const int code = inference_classifier(context_, picture, values);
  if (code != 0) Release();
  return code;
}

std::vector<float> Model::Thresholds(const DetectRequest& request) const {
  const float common = config_.value("box_conf_threshold", kDefaultThreshold);
  std::vector<float> thresholds;
  for (const std::string& label : labels_)
    thresholds.push_back(request.Threshold(label, LabelThreshold(config_, label, common)));
  return thresholds;
}

}  // namespace varnel::service

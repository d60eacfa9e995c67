#include "service/analysis/network/model.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;

/// What detecting networks find is named by the labels; of a classifying one a single value counts.
NetworkUse UseOf(const ModelSettings& settings, NetworkKind kind) {
  if (kind == NetworkKind::kDetecting) return {kind, settings.labels.size()};
  return {kind, static_cast<size_t>(std::max(settings.class_index, 0)) + 1};
}

}  // namespace

Model::Model(const char* name, ModelSettings settings, const Npu& npu, NetworkKind kind)
    : settings_(std::move(settings)), use_(UseOf(settings_, kind)), context_(npu) {
  VLOG_INFO(kTag, "construct model {}", name);
  if (!settings_.file_name.empty()) return;
  VLOG_ERROR(kTag, "file name of model {} is empty or missing", name);
  state_ = ModelState::kBroken;
}

Model::~Model() = default;

const std::string& Model::LabelOf(int32_t cls_id) const {
  static const std::string kUnknown = "unknown";
  if (cls_id < 0 || static_cast<size_t>(cls_id) >= settings_.labels.size()) return kUnknown;
  return settings_.labels[static_cast<size_t>(cls_id)];
}

bool Model::EnsureLoaded(const std::filesystem::path& directory) {
  if (state_ != ModelState::kCreated) return state_ == ModelState::kLoaded;
  if (directory.empty()) {
    VLOG_ERROR(kTag, "model base directory is empty");
    return false;
  }
  const std::string path = (directory / settings_.file_name).string();
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

int Model::Detect(const ImageBuffer& picture, std::span<const float> thresholds,
                  DetectionList& found) {
  const int code =
      inference_yolo11_model(context_, picture, found, thresholds, settings_.nms_threshold);
  if (code == 0) return 0;
  VLOG_ERROR(kTag, "inference_yolo11_model fail! ret={}", code);
  Release();
  return code;
}

int Model::Classify(const ImageBuffer& picture, std::vector<float>& values) {
  const int code = inference_classifier(context_, picture, values);
  if (code != 0) Release();
  return code;
}

}  // namespace varnel::service
